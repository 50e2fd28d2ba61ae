#pragma once

#include "common/winsock_headers.h"

namespace ruvo {

/// What every stream to the proxy core gets, in both directions, in bytes.
inline constexpr int proxyBufferSize = 0x100000;

/// An overlapped IPv4 socket that children do not inherit: one that they held would keep a closed port busy.
/// INVALID_SOCKET on failure.
inline SOCKET openSocket(int type, int protocol)
{
    return WSASocketW(AF_INET, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
}

/// Before connecting, as the window's scale is settled then. Failures do not matter.
inline void setProxyBuffers(SOCKET socket)
{
    const int size = proxyBufferSize;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char *>(&size), sizeof(size));
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char *>(&size), sizeof(size));
}

} // namespace ruvo
