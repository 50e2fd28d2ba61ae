"""Waiting for conditions, with a limit."""

import time


def wait_for(condition, timeout=15, what=None, interval=0.05):
    """Calls `condition` until it gives something true, and returns that. Fails after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        found = condition()
        if found:
            return found
        if time.monotonic() >= deadline:
            raise AssertionError(f"waited {timeout} s in vain for {what or condition}; last: {found!r}")
        time.sleep(interval)
