#!/usr/bin/env python3
"""Configuration of the bench's proxy core: two SOCKS5 inbounds with UDP, each with a way out of its own.

Which inbound took a connection stands in the access log, as the name of its way out: "[proxy]" or "[direct]".

As a module: core_config.write(path, send_through="192.0.2.2").
As a program: core_config.py OUT --send-through 192.0.2.2
The core writes its access log and its messages to standard output. What a server has ended ends for its client at once
("uplinkOnly"), not after the core's usual second.
"""

import argparse
import json
from pathlib import Path

TEMPLATE = Path(__file__).with_name("core.json")
DEFAULT_PORTS = (10808, 20808)


def build(send_through=None, listen="127.0.0.1", ports=DEFAULT_PORTS):
    """The configuration as a dictionary.

    send_through: the address that outgoing connections are bound to (or one for each inbound), so that a policy rule
    can keep them out of the tunnel; without it the system chooses one. listen: where the inbounds listen, for UDP too.
    """
    config = json.loads(TEMPLATE.read_text())
    assert len(ports) == len(config["inbounds"]), "one port for each inbound"
    for inbound, port in zip(config["inbounds"], ports):
        inbound["listen"] = listen
        inbound["port"] = port
        inbound["settings"]["ip"] = listen
    if send_through:
        addresses = [send_through] * len(ports) if isinstance(send_through, str) else send_through
        for outbound, address in zip(config["outbounds"], addresses, strict=True):
            outbound["sendThrough"] = address
    return config


def write(path, **options):
    """Writes the configuration (options as for build) and returns the path."""
    path = Path(path)
    path.write_text(json.dumps(build(**options), indent=2) + "\n")
    return path


def main():
    parser = argparse.ArgumentParser(description="Writes the configuration of the bench's proxy core.")
    parser.add_argument("out", type=Path)
    parser.add_argument("--send-through", metavar="ADDRESS")
    parser.add_argument("--listen", metavar="ADDRESS", default="127.0.0.1")
    parser.add_argument("--ports", metavar="PORT", type=int, nargs=2, default=DEFAULT_PORTS)
    options = parser.parse_args()
    write(options.out, send_through=options.send_through, listen=options.listen, ports=options.ports)


if __name__ == "__main__":
    main()
