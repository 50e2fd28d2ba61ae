"""Removes what runs left behind that were killed: namespaces, prefixes, programs, control groups. Logs stay."""

from . import filters, machine, network


def remove_abandoned():
    network.remove_abandoned()
    machine.remove_abandoned()
    filters.remove_abandoned()


if __name__ == "__main__":
    remove_abandoned()
