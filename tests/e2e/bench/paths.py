"""Where things are in the checkout and in the build."""

import os
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
BUILD = Path(os.environ.get("RUVOD_BUILD_DIR", ROOT / "build" / "windows"))
OUTPUT = ROOT / "build" / "e2e"
WINE = ROOT / "tests" / "winehost" / "wine-steady"
WINE_PREFIX = ROOT / "tests" / "winehost" / "wine-prefix"

# What lies in the application folder of a bench.
PRODUCT = ("src/app/ruvod.exe", "tools/ruvoctl/ruvoctl.exe")
WINEHOST = ("tests/winehost/winehost.dll", "tests/winehost/wtsapi32.dll", "tests/winehost/iphlpapi.dll",
            "tests/winehost/iphlpapi_wine.dll", "tests/winehost/fwpuclnt.dll", "tests/winehost/fwpuclnt_wine.dll")
# And in its folder tun2.
WINTUN = "tests/winehost/tun2/wintun.dll"
# A client of TCP or UDP, step by step; as Ruvo.exe it stands for the desktop app.
NETCLIENT = "tests/winehost/netclient/netclient.exe"
WINPROBE = BUILD / "tests" / "winehost" / "winprobe.exe"


def windows_path(path):
    """A path of this machine as Wine's programs write it."""
    return "Z:" + str(path).replace("/", "\\")
