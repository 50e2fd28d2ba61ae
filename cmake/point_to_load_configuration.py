#!/usr/bin/env python3
"""Enters an executable's load configuration in its header.

point_to_load_configuration.py NM EXECUTABLE

The linker does not know the object ruvoLoadConfiguration (src/app/load_configuration.cpp); Windows' loader finds it
through entry 10 of the data directory. Fails, and so the link does, if the object does not say what it has to.
"""
import os
import shutil
import struct
import subprocess
import sys

SYMBOL = "ruvoLoadConfiguration"
SIZE = 0x100
DEPENDENT_LOAD_FLAGS = 0x4E
SECURITY_COOKIE = 0x58
SEARCH_SYSTEM32 = 0x800


def u16(data, offset):
    return struct.unpack_from("<H", data, offset)[0]


def u32(data, offset):
    return struct.unpack_from("<I", data, offset)[0]


def u64(data, offset):
    return struct.unpack_from("<Q", data, offset)[0]


def require(is_so, otherwise):
    if not is_so:
        sys.exit(f"{sys.argv[2]}: {otherwise}")


def address_of_symbol(nm, executable):
    symbols = subprocess.run([nm, executable], check=True, capture_output=True, text=True, timeout=60).stdout
    found = [line.split()[0] for line in symbols.splitlines() if line.endswith(f" {SYMBOL}")]
    require(len(found) == 1, f"{len(found)} symbols are named {SYMBOL}")
    return int(found[0], 16)


def file_offset(data, sections, count, rva):
    for header in range(sections, sections + 40 * count, 40):
        virtual_size, start, raw_size, raw = struct.unpack_from("<IIII", data, header + 8)
        if start <= rva and rva + SIZE <= start + min(virtual_size, raw_size):
            return raw + rva - start
    return None


def checksum(data, field):
    """What the header's CheckSum has to be: the folded sum of all 16-bit words but its own, plus the length."""
    struct.pack_into("<I", data, field, 0)
    padded = bytes(data) + b"\0" * (len(data) % 2)
    total = sum(struct.unpack(f"<{len(padded) // 2}H", padded))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total + len(data)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    nm, executable = sys.argv[1:]
    with open(executable, "rb") as file:
        data = bytearray(file.read())

    signature = u32(data, 0x3C)
    require(data[signature:signature + 4] == b"PE\0\0", "no executable of Windows")
    optional = signature + 24
    require(u16(data, optional) == 0x20B and u32(data, optional + 108) > 10, "no 64-bit executable")
    rva = address_of_symbol(nm, executable) - u64(data, optional + 24)
    offset = file_offset(data, optional + u16(data, signature + 20), u16(data, signature + 6), rva)
    require(offset is not None, f"{SYMBOL} is in no section of the file")
    require(u32(data, offset) == SIZE, f"{SYMBOL} has not the size {SIZE:#x}")
    require(u16(data, offset + DEPENDENT_LOAD_FLAGS) == SEARCH_SYSTEM32, f"{SYMBOL} has other load flags")
    require(u64(data, offset + SECURITY_COOKIE) != 0, f"{SYMBOL} names no cookie")

    struct.pack_into("<II", data, optional + 112 + 10 * 8, rva, SIZE)
    struct.pack_into("<I", data, optional + 64, checksum(data, optional + 64))
    # Never a half-written executable under the name that others take for a finished one.
    unfinished = executable + ".tmp"
    with open(unfinished, "wb") as file:
        file.write(data)
    shutil.copymode(executable, unfinished)
    os.replace(unfinished, executable)


if __name__ == "__main__":
    main()
