"""Control groups by which the kernel knows what a process stands for. Needs root and cgroup v2, which may lie anywhere."""

import ctypes
import os
import re
import signal
import time

_libc = ctypes.CDLL(None, use_errno=True)
_FSOPEN_CLOEXEC, _FSCONFIG_CMD_CREATE, _FSMOUNT_CLOEXEC = 1, 6, 1
OURS = re.compile(r"^ruvod-(\d+)$")
# Where nftables looks for groups. It takes any path from there, and asks the file system for the group's number.
_NFTABLES_ROOT = "/sys/fs/cgroup"


def _checked(result):
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, f"cgroup v2: {os.strerror(error)}")
    return result


def _mount():
    """A mount of cgroup v2 without a place in the file system: it goes with its descriptor, however the process ends."""
    context = _checked(_libc.fsopen(b"cgroup2", _FSOPEN_CLOEXEC))
    try:
        _checked(_libc.fsconfig(context, _FSCONFIG_CMD_CREATE, None, None, 0))
        mount = _checked(_libc.fsmount(context, _FSMOUNT_CLOEXEC, 0))
    finally:
        os.close(context)
    try:
        return os.open(".", os.O_RDONLY | os.O_DIRECTORY, dir_fd=mount)
    finally:
        os.close(mount)


def _pids(path):
    with open(f"{path}/cgroup.procs", encoding="ascii") as file:
        return [int(line) for line in file]


def _remove(path, timeout=10):
    """Ends what is in a group and removes it."""
    deadline = time.monotonic() + timeout
    while True:
        for pid in _pids(path):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            os.rmdir(path)
            return
        except OSError:
            if time.monotonic() >= deadline:
                raise
            time.sleep(0.01)


def _remove_tree(path):
    for entry in list(os.scandir(path)):
        if entry.is_dir(follow_symlinks=False):
            _remove(entry.path)
    _remove(path)


def _is_alive(pid):
    """Not one whose parent has yet to be told of its end."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            return file.read().rpartition(b")")[2].split()[0] not in (b"Z", b"X")
    except FileNotFoundError:
        return False


class Groups:
    """A group for each of `names`, below one of this process."""

    LEVEL = 2  # how deep they lie

    def __init__(self, names):
        self._root = _mount()
        # By this path other processes reach it too.
        self._folder = f"/proc/{os.getpid()}/fd/{self._root}/ruvod-{os.getpid()}"
        self.names = tuple(names)
        for path in [self._folder, *map(self.path, self.names)]:
            os.mkdir(path)

    def path(self, name):
        """Whoever writes its process id into `cgroup.procs` there is of that group, with all that it starts."""
        return f"{self._folder}/{name}"

    def nftables_path(self, name):
        return os.path.relpath(self.path(name), _NFTABLES_ROOT)

    def remove(self):
        """Ends what still is in the groups, and removes them."""
        if self._root is not None:
            _remove_tree(self._folder)
            os.close(self._root)
            self._root = None


def owners():
    """The processes that have groups, or had when they were killed."""
    with _Listing() as listing:
        return sorted(listing.folders)


def remove_abandoned():
    """Removes the groups of processes that are gone, with what is in them."""
    with _Listing() as listing:
        for owner, folder in listing.folders.items():
            if not _is_alive(owner):
                _remove_tree(folder)


class _Listing:
    """The folders that there are, by their owners' process ids."""

    def __enter__(self):
        self._root = _mount()
        path = f"/proc/{os.getpid()}/fd/{self._root}"
        found = [(OURS.match(name), f"{path}/{name}") for name in os.listdir(path)]
        self.folders = {int(name[1]): folder for name, folder in found if name}
        return self

    def __exit__(self, *_):
        os.close(self._root)
