#include "socks5/socks_client.h"

#include "common/log_category.h"
#include "io/socket_options.h"
#include "io/timed_io.h"

#include <QString>

#include <array>

namespace ruvo {

SocksClient::SocksClient(const std::wstring &proxyHost, std::uint16_t proxyPort, HANDLE stopEvent)
    : m_proxyHost(proxyHost), m_proxyPort(proxyPort), m_wait(stopEvent)
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
    if (!sendAll(socks5::greeting)) {
        qCWarning(lcRuvod) << "Failed to send SOCKS5 greeting";
        return false;
    }
    std::array<std::uint8_t, socks5::methodReplySize> reply{};
    if (!receiveExactly(reply)) {
        qCWarning(lcRuvod) << "Failed to receive SOCKS5 response";
        return false;
    }
    if (!socks5::isMethodAccepted(reply)) {
        qCWarning(lcRuvod) << "SOCKS5 authentication failed";
        return false;
    }
    return true;
}

bool SocksClient::connectIPv4(std::uint32_t address, std::uint16_t port)
{
    if (!sendAll(socks5::connectRequest(address, port))) {
        qCWarning(lcRuvod) << "Failed to send connection request";
        return false;
    }
    socks5::Bytes reply;
    if (!receiveReply(reply)) {
        qCWarning(lcRuvod) << "Failed to receive connection response";
        return false;
    }
    if (const auto failure = socks5::replyFailure(reply)) {
        qCWarning(lcRuvod) << "SOCKS5 connection failed with reply:" << *failure;
        return false;
    }
    return true;
}

bool SocksClient::connectDomain(std::string_view name, std::uint16_t port)
{
    const std::optional<socks5::Bytes> request = socks5::connectRequest(name, port);
    if (!request) {
        qCWarning(lcRuvod) << "Invalid domain name length";
        return false;
    }
    if (!sendAll(*request)) {
        qCWarning(lcRuvod) << "Failed to send domain connection request";
        return false;
    }
    socks5::Bytes reply;
    if (!receiveReply(reply)) {
        qCWarning(lcRuvod) << "Failed to receive domain connection response";
        return false;
    }
    if (const auto failure = socks5::replyFailure(reply)) {
        qCWarning(lcRuvod) << "SOCKS5 domain connection failed with reply:" << *failure;
        return false;
    }
    return true;
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

bool SocksClient::sendAll(socks5::ByteView bytes)
{
    return sendWithin(m_wait, m_tcpSocket.get(), bytes, m_deadline);
}

bool SocksClient::receiveExactly(std::span<std::uint8_t> bytes)
{
    return receiveWithin(m_wait, m_tcpSocket.get(), bytes, m_deadline) == bytes.size();
}

// To the reply's own end and no further: the bytes behind it are the stream's, and a server that speaks first may
// have sent them already.
bool SocksClient::receiveReply(socks5::Bytes &reply)
{
    reply.resize(socks5::minReplySize);
    if (!receiveExactly(reply))
        return false;
    if (socks5::replyFailure(reply))
        return true; // nothing of it is read beyond the code
    reply.resize(socks5::replySize(reply));
    return receiveExactly(std::span(reply).subspan(socks5::minReplySize));
}

} // namespace ruvo
