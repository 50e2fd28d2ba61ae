"""Removes what runs left behind that were killed: namespaces, prefixes, programs. Logs stay."""

from . import machine, network


def remove_abandoned():
    network.remove_abandoned()
    machine.remove_abandoned()


if __name__ == "__main__":
    remove_abandoned()
