"""The scripted child under supervision: what starts it, and what its answers and events say."""

import re
import shutil

from .paths import BUILD, windows_path

TESTCHILD = BUILD / "tests" / "winehost" / "testchild" / "testchild.exe"
TIMESTAMP = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")


def child(bench, process_id, *arguments, name="testchild.exe", **spec):
    """A process specification that runs the scripted child under a name of its own."""
    executable = bench.application / name
    if not executable.exists():
        shutil.copy2(TESTCHILD, executable)
    return {"process_id": process_id, "executable": windows_path(executable),
            "arguments": [str(argument) for argument in arguments]} | spec


def raw_start(bench, identity, *arguments, **spec):
    """The same as the whole request, as it goes over the pipe."""
    fields = child(bench, identity, *arguments, **spec)
    return {"action": "start", "request-id": f"start {identity}"} | {
        key.replace("_", "-"): value for key, value in fields.items()}


def keys(message):
    """An answer or event without its timestamp, which is looked at here."""
    assert TIMESTAMP.match(message["timestamp"]), message
    return {key: value for key, value in message.items() if key not in ("timestamp", "request-id")}


def output(client, process_id, stream="stdout"):
    """All that the child has written, as its owner was told."""
    return "".join(event["data"] for event in client.events(stream) if event["process-id"] == process_id)
