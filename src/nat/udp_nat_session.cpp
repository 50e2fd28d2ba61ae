#include "nat/udp_nat_session.h"

#include "io/socket_options.h"
#include "io/timed_io.h"
#include "socks5/blocking_exchange.h"
#include "socks5/proxy_signs.h"

#include <chrono>
#include <cstdint>
#include <utility>

namespace ruvo {

namespace {

constexpr std::size_t bufferSize = 0x10000;
constexpr std::chrono::seconds connectTimeout{10};
constexpr std::chrono::seconds replyTimeout{5};

constexpr std::size_t replyAddressType = 3; // RFC 1928 section 6

SocketWait::Clock::time_point within(std::chrono::seconds time)
{
    return SocketWait::Clock::now() + time;
}

/// The association still stands after these. The refusals are those of datagrams before this one: keeping them from
/// the receives does not keep them from the sends everywhere.
bool isLossOfOneDatagram(int error)
{
    return error == WSAEWOULDBLOCK || error == WSAECONNRESET || error == WSAECONNREFUSED;
}

/// Winsock has one structure for both directions; what is sent from it is only read.
WSABUF sendBuffer(std::span<const std::uint8_t> bytes)
{
    return {.len = static_cast<ULONG>(bytes.size()),
            .buf = const_cast<char *>(reinterpret_cast<const char *>(bytes.data()))};
}

} // namespace

UdpNatSession::UdpNatSession(const FlowKey &key, const Endpoint &target, std::uint16_t socksPort, UdpNatLog &log)
    : m_key(key)
    , m_target(target)
    , m_socksPort(socksPort)
    , m_header(socks5::udpHeader(target.address, target.port))
    , m_log(log)
    , m_buffer(makePageBuffer<std::uint8_t>(bufferSize))
{}

UdpNatSession::~UdpNatSession()
{
    // Nothing is on its way, and thousands of flows leave no port in TIME_WAIT behind.
    if (m_control)
        resetWhenClosed(m_control.get());
}

bool UdpNatSession::open(const std::wstring &proxyHost, HANDLE stopEvent, CompletionPort &completionPort)
{
    return connectControl(proxyHost, stopEvent) && openUdpSocket(m_relay, completionPort);
}

bool UdpNatSession::openDirect(std::uint32_t interfaceIndex, CompletionPort &completionPort)
{
    m_isDirect = true;
    return openUdpSocket(socketAddress(m_target.address, m_target.port), completionPort, interfaceIndex);
}

bool UdpNatSession::connectControl(const std::wstring &proxyHost, HANDLE stopEvent)
{
    m_control.reset(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!m_control)
        return false;
    sockaddr_in proxy = socketAddress(0, m_socksPort);
    if (InetPtonW(AF_INET, proxyHost.c_str(), &proxy.sin_addr) != 1)
        return false;
    takeRefusalAtOnce(m_control.get(), ntohl(proxy.sin_addr.s_addr));
    SocketWait wait(stopEvent);
    if (const int error = connectWithin(wait, m_control.get(), proxy, within(connectTimeout)); error != NO_ERROR) {
        m_proxySighting = proxySightingOfConnect(error);
        m_log.proxyNotReached(error);
        return false;
    }
    return associateWithProxy(wait, ntohl(proxy.sin_addr.s_addr));
}

bool UdpNatSession::associateWithProxy(SocketWait &wait, std::uint32_t proxyAddress)
{
    socks5::SocksExchange exchange(socks5::requestBytes(socks5::UdpAssociation()).value());
    m_proxySighting =
        proxySightingOf(driveExchange(exchange, wait, m_control.get(), [] { return within(replyTimeout); }));
    if (exchange.state() != socks5::SocksExchange::State::Succeeded) {
        m_log.exchangeFailed(exchange.failure());
        return false;
    }
    const std::optional<Endpoint> relay = socks5::parseUdpAssociateReply(exchange.reply(), proxyAddress);
    if (!relay) {
        m_log.unexpectedAddressType(exchange.reply()[replyAddressType]);
        return false;
    }
    m_relay = socketAddress(relay->address, relay->port);
    return true;
}

bool UdpNatSession::openUdpSocket(const sockaddr_in &peer, CompletionPort &completionPort,
                                  std::uint32_t interfaceIndex)
{
    m_udp.reset(openSocket(SOCK_DGRAM, IPPROTO_UDP));
    const sockaddr_in any = socketAddress(INADDR_ANY, 0);
    if (!m_udp || bind(m_udp.get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)) != 0) {
        m_log.notBound(WSAGetLastError());
        return false;
    }
    if (interfaceIndex != 0 && !setUnicastInterface(m_udp.get(), interfaceIndex)) {
        m_log.notBoundToInterface(interfaceIndex, WSAGetLastError());
        return false;
    }
    // Whoever finds the port could answer in the peer's place otherwise.
    if (!setNonBlocking(m_udp.get()) || !connectDatagrams(m_udp.get(), peer)) {
        m_log.notConnected(WSAGetLastError());
        return false;
    }
    keepReceivingAfterRefusals(m_udp.get());
    for (const Socket *socket : {&m_udp, &m_control}) {
        if (*socket && !completionPort.associate(socket->get(), CompletionKey::UdpNatReceive)) {
            m_log.notAssociated(GetLastError());
            return false;
        }
    }
    return true;
}

void UdpNatSession::startReceiving(CompletionPort &completionPort, AnswerCallback answer)
{
    m_completionPort = &completionPort;
    m_answer = std::move(answer);
    postReceive();
    watchControl();
}

void UdpNatSession::postReceive()
{
    const std::lock_guard lock(m_mutex);
    if (m_closed || m_receivePending.exchange(true))
        return;
    const auto receive = [this](DWORD &) {
        WSABUF room{.len = bufferSize, .buf = reinterpret_cast<char *>(m_buffer.get())};
        DWORD flags = 0;
        return WSARecvFrom(m_udp.get(), &room, 1, nullptr, &flags, nullptr, nullptr, &m_receive, nullptr) == 0;
    };
    const CompletionPort::Issued issued = m_completionPort->issue(m_receive, shared_from_this(), false, receive);
    if (issued.state == CompletionPort::Issued::State::Failed) {
        m_receivePending = false;
        m_log.receiveFailed(issued.error);
    }
}

/// RFC 1928 section 7: an association ends with the connection that its request came on. The proxy sends nothing on
/// it, so a receive there completes when it ends.
void UdpNatSession::watchControl()
{
    const std::lock_guard lock(m_mutex);
    if (m_closed || !m_control)
        return;
    const auto receive = [this](DWORD &) {
        WSABUF room{.len = sizeof(m_controlByte), .buf = &m_controlByte};
        DWORD flags = 0;
        return WSARecv(m_control.get(), &room, 1, nullptr, &flags, &m_controlWatch, nullptr) == 0;
    };
    const CompletionPort::Issued issued = m_completionPort->issue(m_controlWatch, shared_from_this(), false, receive);
    if (issued.state == CompletionPort::Issued::State::Failed)
        m_active = false;
}

void UdpNatSession::onControlReceived(DWORD bytes, DWORD error)
{
    if (error == NO_ERROR && bytes > 0)
        watchControl();
    else
        m_active = false;
}

void UdpNatSession::onReceived(DWORD bytes, DWORD error)
{
    m_receivePending = false;
    const std::span<const std::uint8_t> datagram(m_buffer.get(), bytes);
    if (m_isDirect) {
        if (error != NO_ERROR) {
            m_active = false; // no control connection tells when: the next datagram opens another one
            return;
        }
        m_answer(*this, datagram);
    } else {
        if (error != NO_ERROR || bytes == 0)
            return; // silent from now on, but still of use for sending
        const std::optional<std::size_t> headerSize = socks5::udpHeaderSize(datagram);
        if (!headerSize)
            m_log.invalidHeader();
        else if (*headerSize < bytes)
            m_answer(*this, datagram.subspan(*headerSize));
    }
    postReceive();
}

bool UdpNatSession::send(std::span<const std::uint8_t> payload)
{
    // Header and payload in one datagram, without putting them into one buffer first.
    WSABUF parts[] = {sendBuffer(m_header), sendBuffer(payload)};
    const std::span<WSABUF> datagram = std::span(parts).subspan(m_isDirect ? 1 : 0);
    DWORD sent = 0;
    if (WSASend(m_udp.get(), datagram.data(), static_cast<DWORD>(datagram.size()), &sent, 0, nullptr, nullptr) == 0)
        return true;
    const int error = WSAGetLastError();
    if (isLossOfOneDatagram(error))
        return true;
    if (m_isDirect) {
        m_log.directSendFailed(error);
        // Lost: every other way leads back into the tunnel. The socket keeps the address and the interface of the
        // moment in which it was connected, so the next datagram opens another.
        m_active = false;
        return true;
    }
    m_log.sendFailed(error);
    return false;
}

void UdpNatSession::close()
{
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_closed, true))
        return;
    for (const Socket *socket : {&m_control, &m_udp}) {
        if (*socket)
            CancelIoEx(reinterpret_cast<HANDLE>(socket->get()), nullptr);
    }
}

} // namespace ruvo
