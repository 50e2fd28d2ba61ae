"""Has the kernel enforce filters in this process's network namespace, by the library behind the program nft."""

import ctypes
import time
from collections import namedtuple

from . import ruleset

# When a change was in force (seconds since 1970) and how long it took.
Change = namedtuple("Change", "time seconds")


class Nftables:
    """The rules of this network namespace; each change is in force, as a whole, when its call returns."""

    def __init__(self, groups):
        library = ctypes.CDLL("libnftables.so.1")
        library.nft_ctx_new.restype = ctypes.c_void_p
        library.nft_ctx_get_error_buffer.restype = ctypes.c_char_p
        library.nft_ctx_buffer_error.argtypes = [ctypes.c_void_p]
        library.nft_ctx_get_error_buffer.argtypes = [ctypes.c_void_p]
        library.nft_run_cmd_from_buffer.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
        self._library = library
        self._context = library.nft_ctx_new(0)
        library.nft_ctx_buffer_error(self._context)
        self._groups = groups
        self._in_force = {}
        self.changes = []
        self._run(ruleset.skeleton())
        self.enforce([])
        self.changes.clear()

    def enforce(self, filters):
        """Makes the rules those of `filters`."""
        wanted = {family: ruleset.update(family, filters, self._groups) for family in ruleset.FAMILIES}
        changed = [text for family, text in wanted.items() if self._in_force.get(family) != text]
        if changed:
            start = time.perf_counter()
            self._run("".join(changed))
            self.changes.append(Change(time.time(), time.perf_counter() - start))
            self._in_force = wanted

    def remove(self):
        self._run(ruleset.removal())

    def _run(self, script):
        if self._library.nft_run_cmd_from_buffer(self._context, script.encode()) != 0:
            problem = self._library.nft_ctx_get_error_buffer(self._context).decode(errors="replace")
            raise RuntimeError(f"nftables refuses:\n{script}\n{problem}")
