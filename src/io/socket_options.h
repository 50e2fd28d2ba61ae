#pragma once

#include "common/winsock_headers.h"

#include <mstcpip.h>
#include <mswsock.h>

#include <cstdint>

namespace ruvo {

/// Address and port in host order.
inline sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

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

/// Small segments go out at once: what is relayed has been waited for already. Failure does not matter.
inline void setNoDelay(SOCKET socket)
{
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&on), sizeof(on));
}

/// Windows takes a refusal for a mistake and asks twice more, half a second apart; if the peer (host order) is on
/// this machine the first one is the truth. Before connecting; failure does not matter.
inline void takeRefusalAtOnce(SOCKET socket, std::uint32_t peer)
{
    constexpr std::uint32_t loopbackNetwork = 127;
    if (peer >> 24 != loopbackNetwork)
        return;
    TCP_INITIAL_RTO_PARAMETERS once{.Rtt = TCP_INITIAL_RTO_UNSPECIFIED_RTT,
                                    .MaxSynRetransmissions = TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS};
    DWORD size = 0;
    WSAIoctl(socket, SIO_TCP_INITIAL_RTO, &once, sizeof(once), nullptr, 0, &size, nullptr, nullptr);
}

/// False: WSAGetLastError tells why, and calls on the socket still block.
inline bool setNonBlocking(SOCKET socket)
{
    u_long on = 1;
    return ioctlsocket(socket, static_cast<long>(FIONBIO), &on) == 0;
}

/// What the socket sends leaves through the interface of this index, whatever the routes say. False: WSAGetLastError
/// tells why.
inline bool setUnicastInterface(SOCKET socket, std::uint32_t interfaceIndex)
{
    const DWORD index = htonl(interfaceIndex); // Windows wants network order here, unlike IPV6_UNICAST_IF
    return setsockopt(socket, IPPROTO_IP, IP_UNICAST_IF, reinterpret_cast<const char *>(&index), sizeof(index)) == 0;
}

/// From here on the socket sends to `peer` and takes datagrams of nobody else; what others have sent since it was
/// bound is thrown away. It has to be non-blocking. False: WSAGetLastError tells why.
inline bool connectDatagrams(SOCKET socket, const sockaddr_in &peer)
{
    if (connect(socket, reinterpret_cast<const sockaddr *>(&peer), sizeof(peer)) != 0)
        return false;
    char byte = 0;
    while (recv(socket, &byte, sizeof(byte), 0) >= 0 || WSAGetLastError() == WSAEMSGSIZE) {
        // The peer has not heard of this socket yet: these are strangers' datagrams, and no more of them come.
    }
    return true;
}

/// Closing it will answer whatever still comes with a reset, and throw away what has not gone out.
inline void resetWhenClosed(SOCKET socket)
{
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&now), sizeof(now));
}

/// mswsock.h of this compiler lacks it: whether a datagram that ran out of hops fails a receive.
inline constexpr DWORD udpNetReset = _WSAIOW(IOC_VENDOR, 15);

/// A datagram that its receiver refused (ICMP "port unreachable") or that did not reach it ("time exceeded") fails
/// the next receive otherwise, and with it all that is still to come. Failure does not matter.
inline void keepReceivingAfterRefusals(SOCKET socket)
{
    for (const DWORD what : {DWORD{SIO_UDP_CONNRESET}, udpNetReset}) {
        BOOL off = FALSE;
        DWORD size = 0;
        WSAIoctl(socket, what, &off, sizeof(off), nullptr, 0, &size, nullptr, nullptr);
    }
}

} // namespace ruvo
