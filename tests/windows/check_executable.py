#!/usr/bin/env python3
"""Checks what an executable of ours needs of a machine and says of itself.

check_executable.py OBJDUMP WINDRES VERSION EXECUTABLE

It may import DLLs of Windows only, and has to carry the version and the manifest.
"""
import re
import subprocess
import sys

# Everything here comes with every Windows 10. A DLL that is not here has to be shipped, or is a new need of ours
# that somebody should have thought about.
SYSTEM_DLLS = {
    "advapi32.dll", "api-ms-win-core-synch-l1-2-0.dll", "authz.dll", "bcrypt.dll", "crypt32.dll", "fwpuclnt.dll",
    "iphlpapi.dll", "kernel32.dll", "msvcrt.dll", "mswsock.dll", "netapi32.dll", "ole32.dll", "oleaut32.dll",
    "secur32.dll", "shell32.dll", "user32.dll", "userenv.dll", "version.dll", "winhttp.dll", "winmm.dll",
    "ws2_32.dll", "wtsapi32.dll",
}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout


def imported_dlls(objdump, executable):
    return set(re.findall(r"^\s*DLL Name: (\S+)$", output(objdump, "-p", executable), re.MULTILINE))


def problems(objdump, windres, version, executable):
    imports = imported_dlls(objdump, executable)
    if not imports:
        yield "no imports were found: the check itself is broken"
    for dll in sorted(imports):
        if dll.lower() not in SYSTEM_DLLS:
            yield f"imports {dll}"

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
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    try:
        found = list(problems(*sys.argv[1:]))
    except subprocess.CalledProcessError as error:
        sys.exit(f"{' '.join(error.cmd)}: {error.stderr}")
    for problem in found:
        print(f"{sys.argv[4]} {problem}", file=sys.stderr)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
