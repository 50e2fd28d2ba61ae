#include "socks5/socks_client.h"

#include "common/log_category.h"
#include "io/socket_options.h"
#include "io/timed_io.h"
#include "socks5/blocking_exchange.h"
#include "socks5/socks_failure_log.h"

#include <QString>

#include <optional>
#include <utility>
#include <variant>

namespace ruvo {

SocksClient::SocksClient(std::wstring proxyHost, std::uint16_t proxyPort, HANDLE stopEvent)
    : m_proxyHost(std::move(proxyHost)), m_proxyPort(proxyPort), m_wait(stopEvent)
{}

bool SocksClient::parseProxyAddress(in_addr &address) const
{
    return InetPtonW(AF_INET, m_proxyHost.c_str(), &address) == 1;
}

bool SocksClient::connectToProxy()
{
    m_connected = false;
    m_deadline = SocketWait::Clock::now() + attemptTimeout;
    m_tcpSocket.reset(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!m_tcpSocket) {
        const int error = WSAGetLastError();
        qCWarning(lcRuvod) << "Failed to create socket:" << error;
        return false;
    }
    setProxyBuffers(m_tcpSocket.get());

    sockaddr_in address = socketAddress(0, m_proxyPort);
    if (!parseProxyAddress(address.sin_addr)) {
        qCWarning(lcRuvod) << "Invalid proxy address:" << QString::fromStdWString(m_proxyHost);
        m_tcpSocket.reset();
        return false;
    }
    if (const int error = connectWithin(m_wait, m_tcpSocket.get(), address, m_deadline); error != NO_ERROR) {
        qCWarning(lcRuvod) << "Failed to connect to proxy:" << error;
        m_tcpSocket.reset();
        return false;
    }
    return true;
}

bool SocksClient::authenticate()
{
    return drive(socks5::SocksExchange(socks5::Bytes()), false);
}

bool SocksClient::connectIPv4(std::uint32_t address, std::uint16_t port)
{
    return request(socks5::Endpoint{address, port});
}

bool SocksClient::connectDomain(std::string_view name, std::uint16_t port)
{
    return request(socks5::NamedDestination{std::string(name), port});
}

bool SocksClient::request(const socks5::SocksRequest &request)
{
    std::optional<socks5::Bytes> bytes = socks5::requestBytes(request);
    if (!bytes) {
        qCWarning(lcRuvod) << "Invalid domain name length";
        return false;
    }
    return drive(socks5::SocksExchange::ofRequest(std::move(*bytes)),
                 std::holds_alternative<socks5::NamedDestination>(request));
}

bool SocksClient::drive(socks5::SocksExchange exchange, bool byName)
{
    driveExchange(exchange, m_wait, m_tcpSocket.get(), [this] { return m_deadline; });
    if (exchange.state() == socks5::SocksExchange::State::Succeeded)
        return true;
    logSocksFailure(exchange.failure(), byName);
    return false;
}

bool SocksClient::connectTo(std::uint32_t address, std::uint16_t port)
{
    m_connected = connectToProxy() && authenticate() && connectIPv4(address, port);
    return m_connected;
}

bool SocksClient::connectTo(std::string_view name, std::uint16_t port)
{
    m_connected = connectToProxy() && authenticate() && connectDomain(name, port);
    return m_connected;
}

void SocksClient::setNonBlocking(bool on)
{
    if (!m_tcpSocket)
        return;
    u_long mode = on ? 1 : 0;
    ioctlsocket(m_tcpSocket.get(), static_cast<long>(FIONBIO), &mode);
}

void SocksClient::close()
{
    m_tcpSocket.reset();
    m_connected = false;
    m_udpSocket.reset();
    m_udpReady = false;
}

Socket SocksClient::releaseTcpSocket()
{
    m_connected = false;
    return std::move(m_tcpSocket);
}

} // namespace ruvo
