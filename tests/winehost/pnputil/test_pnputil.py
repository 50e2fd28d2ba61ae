"""What tests of the removal of devices rely on in the bench's pnputil.exe."""

import json
import shutil
import subprocess

import pytest

from bench.paths import BUILD
from bench.waiting import wait_for

PROGRAM = r"C:\windows\system32\pnputil.exe"
REMOVAL = ("/remove-device", r"SWD\Wintun\{01234567-89AB-CDEF-0123-456789ABCDEF}")


@pytest.fixture
def folder(prefix):
    """The folder of its files, empty; the program itself lies in System32."""
    shutil.copy(BUILD / "tests/winehost/pnputil/pnputil.exe", prefix.directory / "drive_c/windows/system32")
    path = prefix.directory / "drive_c/winehost"
    shutil.rmtree(path, ignore_errors=True)
    return path


def calls(folder):
    return [json.loads(line) for line in (folder / "pnputil.jsonl").read_text().splitlines()]


def control(folder, text):
    folder.mkdir(exist_ok=True)
    (folder / "pnputil.control").write_text(text)


def test_records_its_arguments_and_succeeds_in_silence(prefix, folder):
    result = prefix.run(PROGRAM, *REMOVAL)
    assert (result.status, result.stdout, result.stderr) == (0, "", "")
    prefix.run(PROGRAM, "two words", "ü")
    first, second = calls(folder)
    assert first["arguments"] == list(REMOVAL)
    assert " ".join(REMOVAL) in first["command-line"]
    assert second["arguments"] == ["two words", "ü"]
    assert 0 < first["time-ms"] <= second["time-ms"]


def test_fails_as_it_is_told(prefix, folder):
    control(folder, "# a remark\nstdout Microsoft PnP Utility\nstderr  No such device.\nstderr Sorry\nexit 5\n")
    result = prefix.run(PROGRAM, *REMOVAL)
    assert (result.status, result.stdout) == (5, "Microsoft PnP Utility\n")
    assert result.stderr == " No such device.\nSorry\n"
    assert len(calls(folder)) == 1


def test_hangs_as_it_is_told_after_it_was_recorded(prefix, folder):
    control(folder, "hang\n")
    process = prefix.popen(PROGRAM, *REMOVAL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_for(lambda: (folder / "pnputil.jsonl").exists() and calls(folder), 15, "the record of the call")
        with pytest.raises(subprocess.TimeoutExpired):
            process.wait(timeout=1)
    finally:
        process.kill()
        process.wait(timeout=10)


def test_refuses_a_control_file_that_it_does_not_understand(prefix, folder):
    for text in ("exti 5\n", "exit five\n"):
        control(folder, text)
        result = prefix.run(PROGRAM)
        assert result.status == 70
        assert "pnputil of the bench: the control file" in result.stderr
