#!/usr/bin/env python3
"""Checks what an executable of ours needs of a machine and says of itself.

check_executable.py OBJDUMP WINDRES NM VERSION EXECUTABLE

It may import DLLs of Windows only, has them looked for in System32 only, is built to notice overruns, and has to carry
the version and the manifest.
"""
import os
import re
import struct
import subprocess
import sys

# All of these come with every Windows 10, and each is needed. Any other has to be shipped, or is a new need that
# somebody should have thought about: what is imported is loaded before the first line of our own code.
COMMON_DLLS = {
    "advapi32.dll", "api-ms-win-core-synch-l1-2-0.dll", "authz.dll", "kernel32.dll", "msvcrt.dll", "netapi32.dll",
    "ole32.dll", "shell32.dll", "user32.dll", "userenv.dll", "version.dll", "winmm.dll", "ws2_32.dll",
}
DLLS = {
    "ruvod.exe": COMMON_DLLS | {"fwpuclnt.dll", "iphlpapi.dll", "oleaut32.dll", "wtsapi32.dll"},
    "ruvoctl.exe": COMMON_DLLS,
}

# winnt.h, and the places of its structures in a 64-bit executable.
LOAD_CONFIGURATION = 10
DEPENDENT_LOAD_FLAGS = 0x4E
SECURITY_COOKIE = 0x58
SEARCH_SYSTEM32 = 0x800
HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPAT = 0x20, 0x40, 0x100


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout


def imported_dlls(objdump, executable):
    return set(re.findall(r"^\s*DLL Name: (\S+)$", output(objdump, "-p", executable), re.MULTILINE))


class Image:
    """The headers of an executable file, and what its sections hold at an address."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        signature = self.number("<I", 0x3C)
        if self.data[signature:signature + 4] != b"PE\0\0":
            sys.exit(f"{path} is no executable of Windows")
        self.optional = signature + 24
        self.base = self.number("<Q", self.optional + 24)
        self.characteristics = self.number("<H", self.optional + 70)
        first = self.optional + self.number("<H", signature + 20)
        self.sections = [struct.unpack_from("<8sIIII", self.data, first + 40 * number)
                         for number in range(self.number("<H", signature + 6))]

    def number(self, form, offset):
        return struct.unpack_from(form, self.data, offset)[0]

    def directory(self, entry):
        return struct.unpack_from("<II", self.data, self.optional + 112 + 8 * entry)

    def section(self, rva):
        """Name, and where in the file the address lies."""
        for name, size, start, _, raw in self.sections:
            if start <= rva < start + size:
                return name.rstrip(b"\0").decode(), raw + rva - start
        return None, None

    def checksum(self):
        """As it stands in the header, and as it has to be."""
        field = self.optional + 64
        data = self.data[:field] + bytes(4) + self.data[field + 4:]
        total = sum(struct.unpack(f"<{(len(data) + 1) // 2}H", data + bytes(len(data) % 2)))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return self.number("<I", field), total + len(data)


def loading_problems(image):
    """Where the loader looks for DLLs, and where it puts the program."""
    rva, size = image.directory(LOAD_CONFIGURATION)
    name, offset = image.section(rva)
    if not rva or offset is None or size != image.number("<I", offset):
        yield "has no load configuration"
        return
    if image.number("<H", offset + DEPENDENT_LOAD_FLAGS) != SEARCH_SYSTEM32:
        yield "looks for its DLLs elsewhere than in System32"
    cookie = image.number("<Q", offset + SECURITY_COOKIE) - image.base
    if image.section(cookie)[0] != ".data":
        yield "has its cookie where the loader cannot write it"
    for flag in (HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPAT):
        if not image.characteristics & flag:
            yield f"has not the characteristic {flag:#x}"
    found, right = image.checksum()
    if found != right:
        yield f"has the checksum {found:#x} instead of {right:#x}"


def problems(objdump, windres, nm, version, executable):
    yield from loading_problems(Image(executable))
    # They are linked in only where code calls them.
    symbols = set(re.findall(r" T (\S+)$", output(nm, executable), re.MULTILINE))
    for symbol in ("__stack_chk_fail", "__chk_fail"):
        if symbol not in symbols:
            yield f"does not call {symbol}"

    imports = imported_dlls(objdump, executable)
    if not imports:
        yield "no imports were found: the check itself is broken"
    expected = DLLS[os.path.basename(executable)]
    found = {dll.lower() for dll in imports}
    for dll in sorted(found - expected):
        yield f"imports {dll}"
    for dll in sorted(expected - found):
        yield f"no longer imports {dll}: take it from the list"

    resources = output(windres, "-J", "coff", "-O", "rc", "-i", executable)
    numbers = version.replace(".", ", ") + ", 0"
    for line in (f"FILEVERSION {numbers}", f"PRODUCTVERSION {numbers}",
                 f'VALUE "FileVersion", "{version}"', f'VALUE "ProductVersion", "{version}"'):
        if line not in resources:
            yield f"has no {line}"
    # As windres prints it: its quotes are doubled, as in every text of a resource script.
    manifest = resources.partition("RT_MANIFEST")[2].replace('""', '"')
    for element in (r'<requestedExecutionLevel level="asInvoker" uiAccess="false"/>',
                    r"<activeCodePage [^>]*>UTF-8</activeCodePage>",
                    r"<longPathAware [^>]*>true</longPathAware>"):
        if not re.search(element, manifest):
            yield f"has no {element} in its manifest"


def main():
    if len(sys.argv) != 6:
        sys.exit(__doc__)
    try:
        found = list(problems(*sys.argv[1:]))
    except subprocess.CalledProcessError as error:
        sys.exit(f"{' '.join(error.cmd)}: {error.stderr}")
    for problem in found:
        print(f"{sys.argv[5]} {problem}", file=sys.stderr)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
