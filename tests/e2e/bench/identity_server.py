"""A server that speaks first: it tells each client which address and port it has reached, and closes.

Runs as a program in a namespace of the bench: identity_server.py ADDRESS:PORT…; prints "ready".
"""

import selectors
import socket
import sys


def identity(address, port):
    """What a client of that endpoint reads."""
    return f"{address}:{port}".encode()


def main():
    selector = selectors.DefaultSelector()
    for word in sys.argv[1:]:
        address, port = word.split(":")
        listener = socket.create_server((address, int(port)), backlog=4096)
        listener.setblocking(False)
        selector.register(listener, selectors.EVENT_READ)
    print("ready", flush=True)
    while True:
        for key, _ in selector.select():
            try:
                connection, _ = key.fileobj.accept()
                with connection:
                    connection.send(identity(*connection.getsockname()))
            except OSError:
                pass  # a client that went in the middle


if __name__ == "__main__":
    main()
