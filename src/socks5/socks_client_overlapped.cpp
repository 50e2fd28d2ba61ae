// The half of SocksClient for sockets that others drive through a completion port.

#include "socks5/socks_client.h"

#include "common/capped_log.h"
#include "common/log_category.h"
#include "io/socket_options.h"

namespace ruvo {

namespace {

constexpr std::uint32_t loopback = 127;

// Each datagram of an application may ask for such a socket, and none may be had for long.
CappedLog s_noUdpSocket(10, 100);
CappedLog s_unboundUdpSocket(10, 100);

bool bindTo(SOCKET socket, std::uint32_t address)
{
    const sockaddr_in local = socketAddress(address, 0);
    return bind(socket, reinterpret_cast<const sockaddr *>(&local), sizeof(local)) == 0;
}

} // namespace

bool SocksClient::createOverlappedTcpSocket()
{
    return createBoundSocket("Failed to create socket:", "Failed to bind socket:");
}

bool SocksClient::createOverlappedControlSocket()
{
    if (!createBoundSocket("Failed to create TCP socket:", "Failed to bind TCP socket:")) {
        m_udpSocket.reset();
        return false;
    }
    setNoDelay(m_tcpSocket.get());
    return true;
}

bool SocksClient::createBoundSocket(const char *createFailure, const char *bindFailure)
{
    m_tcpSocket.reset(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!m_tcpSocket) {
        const int error = WSAGetLastError();
        qCWarning(lcRuvod) << createFailure << error;
        return false;
    }
    setProxyBuffers(m_tcpSocket.get());
    if (!bindTo(m_tcpSocket.get(), INADDR_ANY)) {
        const int error = WSAGetLastError();
        qCWarning(lcRuvod) << bindFailure << error;
        m_tcpSocket.reset();
        return false;
    }
    return true;
}

sockaddr_in SocksClient::proxySockaddr() const
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (parseProxyAddress(address.sin_addr))
        address.sin_port = htons(m_proxyPort);
    return address;
}

bool SocksClient::createUdpSocket(std::uint32_t relayAddress, std::uint16_t relayPort)
{
    m_relayAddress = socketAddress(relayAddress, relayPort);
    m_udpReady = false;

    m_udpSocket.reset(openSocket(SOCK_DGRAM, IPPROTO_UDP));
    if (!m_udpSocket) {
        const int error = WSAGetLastError();
        if (s_noUdpSocket.take())
            qCWarning(lcRuvod) << "Failed to create UDP socket:" << error;
        return false;
    }
    // Bound to loopback where that suffices: nobody from outside can send to it then.
    const bool relayIsLocal = relayAddress >> 24 == loopback;
    if (!bindTo(m_udpSocket.get(), relayIsLocal ? INADDR_LOOPBACK : INADDR_ANY)) {
        const int error = WSAGetLastError();
        if (s_unboundUdpSocket.take())
            qCWarning(lcRuvod) << "Failed to bind UDP socket:" << error;
        m_udpSocket.reset();
        return false;
    }
    m_udpReady = true;
    return true;
}

int SocksClient::sendUdpIPv4(std::span<const std::uint8_t> payload, std::uint32_t address, std::uint16_t port)
{
    return sendToRelay(socks5::udpDatagram(payload, address, port));
}

int SocksClient::sendUdpIPv6(std::span<const std::uint8_t> payload, const socks5::Ipv6Address &address,
                             std::uint16_t port)
{
    return sendToRelay(socks5::udpDatagram(payload, address, port));
}

int SocksClient::sendToRelay(const socks5::Bytes &datagram)
{
    return sendto(m_udpSocket.get(), reinterpret_cast<const char *>(datagram.data()),
                  static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr *>(&m_relayAddress),
                  sizeof(m_relayAddress));
}

} // namespace ruvo
