"""Asks the kernel by which interface it would send."""

import errno
import os
import socket
import struct

_RTM_GETROUTE = 26
_NLMSG_ERROR = 2
_NLM_F_REQUEST = 1
_RTA_DST, _RTA_SRC, _RTA_OIF = 1, 2, 4
_HEADER = struct.Struct("=IHHII")
_ROUTE = struct.Struct("=BBBBBBBBI")
_ATTRIBUTE = struct.Struct("=HH")


class Routes:
    """The routes of the network namespace in which it was made."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW | socket.SOCK_CLOEXEC, socket.NETLINK_ROUTE)

    def interface_to(self, family, remote, local):
        """The index of the interface for packets from `local` (unspecified: any) to `remote`; None without a route."""
        number = {4: socket.AF_INET, 6: socket.AF_INET6}[family]
        destination, source = (socket.inet_pton(number, address) for address in (remote, local))
        attributes = _attribute(_RTA_DST, destination) + (_attribute(_RTA_SRC, source) if any(source) else b"")
        bits = 8 * len(destination)
        body = _ROUTE.pack(number, bits, bits if any(source) else 0, 0, 0, 0, 0, 0, 0) + attributes
        self._socket.send(_HEADER.pack(_HEADER.size + len(body), _RTM_GETROUTE, _NLM_F_REQUEST, 0, 0) + body)
        answer = self._socket.recv(65536)
        _, kind, _, _, _ = _HEADER.unpack_from(answer)
        if kind == _NLMSG_ERROR:
            (error,) = struct.unpack_from("=i", answer, _HEADER.size)
            if -error in (errno.ENETUNREACH, errno.EHOSTUNREACH, errno.EACCES, errno.EINVAL):
                return None
            raise OSError(-error, f"route to {remote} from {local}: {os.strerror(-error)}")
        return _outgoing_interface(answer[_HEADER.size + _ROUTE.size:])


def _attribute(kind, data):
    return _ATTRIBUTE.pack(_ATTRIBUTE.size + len(data), kind) + data  # addresses need no padding


def _outgoing_interface(attributes):
    while attributes:
        length, kind = _ATTRIBUTE.unpack_from(attributes)
        if kind == _RTA_OIF:
            return struct.unpack_from("=I", attributes, _ATTRIBUTE.size)[0]
        attributes = attributes[(length + 3) & ~3:]
    return None
