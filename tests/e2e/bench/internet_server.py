"""The servers of the Internet namespace that are ours: HTTP on port 80, TCP and UDP echo on port 7, and some that only
say who they are: "ADDRESS:PORT" and the end.

    GET /bytes/N     N known bytes (known_bytes)
    GET /peer        the address that the request came from
    POST /digest     the SHA-256 of the body
Runs as a program there; prints "ready".
"""

import hashlib
import http.server
import random
import socket
import socketserver
import sys
import threading

HTTP_PORT, ECHO_PORT = 80, 7
IDENTITY_PORTS = range(9001, 9006)
# No power of two: bytes that land in the wrong place are never the right ones by chance.
_BLOCK = random.Random(12).randbytes(1_000_003)


def known_bytes(size):
    """The blocks of a body of that size, one after the other."""
    while size > 0:
        yield _BLOCK[:size]
        size -= len(_BLOCK)


def known_digest(size):
    digest = hashlib.sha256()
    for block in known_bytes(size):
        digest.update(block)
    return digest.hexdigest()


class Pages(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):  # pylint: disable=invalid-name
        if self.path == "/peer":
            self._answer(self.client_address[0].encode())
        elif self.path.startswith("/bytes/"):
            size = int(self.path.removeprefix("/bytes/"))
            self._head(size)
            for block in known_bytes(size):
                self.wfile.write(block)
        else:
            self.send_error(404)

    def do_POST(self):  # pylint: disable=invalid-name
        left = int(self.headers["Content-Length"])
        if self.headers.get("Expect") == "100-continue":
            self.send_response_only(100)
            self.end_headers()
        digest = hashlib.sha256()
        while left > 0:
            block = self.rfile.read(min(left, 1 << 20))
            if not block:
                break
            digest.update(block)
            left -= len(block)
        self._answer(digest.hexdigest().encode())

    def _head(self, size):
        self.send_response(200)
        self.send_header("Content-Length", str(size))
        self.end_headers()

    def _answer(self, body):
        self._head(len(body))
        self.wfile.write(body)

    def log_message(self, format, *args):  # pylint: disable=redefined-builtin
        pass


class TcpEcho(socketserver.BaseRequestHandler):
    def handle(self):
        while data := self.request.recv(65536):
            self.request.sendall(data)


class Identity(socketserver.BaseRequestHandler):
    def handle(self):
        address, port = self.request.getsockname()
        self.request.sendall(f"{address}:{port}".encode())


class UdpEcho(socketserver.BaseRequestHandler):
    def handle(self):
        data, endpoint = self.request
        endpoint.sendto(data, self.client_address)


class TcpServer(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True
    request_queue_size = 1024

    def handle_error(self, request, client_address):
        pass  # a client that went in the middle


class HttpServer(TcpServer, http.server.HTTPServer):
    pass


class UdpServer(socketserver.UDPServer):
    max_packet_size = 65535

    def __init__(self, address, handler):
        self.address_family = socket.AF_INET6 if ":" in address[0] else socket.AF_INET
        super().__init__(address, handler)


def main():
    # One for each address: a datagram is answered from where it went to.
    servers = [HttpServer(("", HTTP_PORT), Pages), TcpServer(("", ECHO_PORT), TcpEcho)]
    servers += [TcpServer(("", port), Identity) for port in IDENTITY_PORTS]
    servers += [UdpServer((address, ECHO_PORT), UdpEcho) for address in sys.argv[1:]]
    threads = [threading.Thread(target=server.serve_forever) for server in servers]
    for thread in threads:
        thread.start()
    print("ready", flush=True)
    for thread in threads:
        thread.join()


if __name__ == "__main__":
    main()
