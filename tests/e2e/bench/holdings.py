"""What the daemon and the machine hold for tunnels: the same before and after any number of them."""

from . import tunnel

# Per process, not per cycle: a critical section gets its event when two threads first meet there, and a heap keeps
# blocks for later.
HANDLE_NOISE = 4
MEMORY_NOISE_KIB = 3 * 1024


# Of the rest, each piece counts.
NOISY = ("handles", "threads", "private KiB")


def held(bench):
    counts = bench.counts()
    of_the_firewall = {what: len(items) for what, items in tunnel.against_leaks(bench).items()}
    return {"handles": counts["handles"], "threads": counts["threads"], "private KiB": bench.memory()["Private_Dirty"],
            "adapters": len(tunnel.adapters(bench)), "addresses": len(tunnel.addresses(bench)),
            "routes": len(tunnel.routes(bench))} | of_the_firewall


def is_back(after, before):
    same = all(after[what] == before[what] for what in before if what not in NOISY)
    return (same and after["threads"] <= before["threads"] and after["handles"] <= before["handles"] + HANDLE_NOISE
            and after["private KiB"] <= before["private KiB"] + MEMORY_NOISE_KIB)
