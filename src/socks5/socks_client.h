#pragma once

#include "common/windows_handles.h"
#include "io/socket_wait.h"
#include "socks5/socks5_messages.h"
#include "socks5/socks_exchange.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace ruvo {

/// One connection through the local proxy core's SOCKS5 inbound, or one UDP association with it.
///
/// The blocking half belongs to one thread at a time, waits 10 s at most from its connect to the answer to its
/// request, and gives up at once when the stop event is set. Every failure is logged as a warning and returned as
/// false; nothing is tried again, and the socket stays open until close() unless said otherwise. Addresses and ports
/// in host order.
class SocksClient
{
public:
    /// For connect, greeting and request together.
    static constexpr std::chrono::seconds attemptTimeout{10};

    /// `proxyHost` is a dotted IPv4 address: names are not resolved. `stopEvent` (not owned) may be null.
    SocksClient(std::wstring proxyHost, std::uint16_t proxyPort, HANDLE stopEvent = nullptr);

    // On the caller's own thread, waiting.
    /// On failure the socket is closed again.
    bool connectToProxy();
    bool authenticate();
    bool connectIPv4(std::uint32_t address, std::uint16_t port);
    bool connectDomain(std::string_view name, std::uint16_t port);
    /// connectToProxy, authenticate and the request. The socket is non-blocking afterwards.
    bool connectTo(std::uint32_t address, std::uint16_t port);
    bool connectTo(std::string_view name, std::uint16_t port);
    void setNonBlocking(bool on);
    void close();

    // For overlapped use.
    /// Bound to 0.0.0.0 port 0, as ConnectEx requires.
    bool createOverlappedTcpSocket();
    /// The same, without delay of small segments.
    bool createOverlappedControlSocket();
    /// Port 0 and address 0 if the proxy host is no address.
    sockaddr_in proxySockaddr() const;
    bool createUdpSocket(std::uint32_t relayAddress, std::uint16_t relayPort);
    /// One datagram to the relay: what sendto answered.
    int sendUdpIPv4(std::span<const std::uint8_t> payload, std::uint32_t address, std::uint16_t port);
    int sendUdpIPv6(std::span<const std::uint8_t> payload, const socks5::Ipv6Address &address, std::uint16_t port);

    SOCKET tcpSocket() const { return m_tcpSocket.get(); }
    SOCKET udpSocket() const { return m_udpSocket.get(); }
    /// Gives the connection away.
    Socket releaseTcpSocket();
    bool isConnected() const { return m_connected; }
    bool isUdpReady() const { return m_udpReady; }

private:
    bool parseProxyAddress(in_addr &address) const;
    bool request(const socks5::SocksRequest &request);
    bool drive(socks5::SocksExchange exchange, bool byName);
    bool createBoundSocket(const char *createFailure, const char *bindFailure);
    int sendToRelay(const socks5::Bytes &datagram);

    const std::wstring m_proxyHost;
    const std::uint16_t m_proxyPort;
    SocketWait m_wait;
    /// Of the attempt that connectToProxy began.
    SocketWait::Clock::time_point m_deadline;
    Socket m_tcpSocket;
    bool m_connected = false;
    Socket m_udpSocket;
    sockaddr_in m_relayAddress{};
    bool m_udpReady = false;
};

} // namespace ruvo
