#include "engine/udp_flow.h"

#include "io/socket_options.h"

#include <utility>

namespace ruvo {

UdpFlow::UdpFlow(const UdpFlowId &id, UpstreamDecision upstream, const UdpFlowContext &context)
    : m_id(id), m_upstream(upstream), m_context(context)
{}

int UdpFlow::state() const
{
    const std::lock_guard lock(m_mutex);
    return m_exchange ? m_exchange->stage() - PortExchange::connectingStage : readyState;
}

void UdpFlow::setExchange(PortExchangePtr exchange)
{
    const std::lock_guard lock(m_mutex);
    m_exchange = std::move(exchange);
}

void UdpFlow::open()
{
    std::unique_lock lock(m_mutex);
    const PortExchangePtr exchange = m_exchange;
    lock.unlock();
    if (exchange)
        exchange->start();
}

void UdpFlow::expireIfOverdue(SteadyTime now)
{
    std::unique_lock lock(m_mutex);
    const PortExchangePtr exchange = m_exchange;
    lock.unlock();
    if (exchange)
        exchange->expireIfOverdue(now);
}

std::optional<UdpFlow::SetupFailure> UdpFlow::establish(EstablishedExchange established)
{
    const std::lock_guard lock(m_mutex);
    if (m_closed) {
        resetWhenClosed(established.socket.get()); // as close does with one that it finds
        return SetupFailure{.step = SetupFailure::Step::Closed};
    }
    m_control = std::move(established.socket);
    m_controlSkipsPort = established.skipsPort;
    if (std::optional<SetupFailure> failure = openRelaySocket(established.bound))
        return failure;
    if (const Posted posted = issueReceive(); posted.state == Posted::State::Failed)
        return SetupFailure{.step = SetupFailure::Step::Receive, .error = posted.error, .socket = posted.socket};
    if (!watchControl())
        return SetupFailure{.step = SetupFailure::Step::Closed};
    m_exchange.reset();
    // Under the mutex: nothing overtakes what has waited.
    for (const StoredDatagram &stored : m_waiting.take()) {
        if (const std::optional<FlowDatagram> datagram = readStoredDatagram(stored))
            sendNow(*datagram);
    }
    return std::nullopt;
}

std::optional<UdpFlow::SetupFailure> UdpFlow::openRelaySocket(const std::optional<Endpoint> &bound)
{
    if (!bound)
        return SetupFailure{.step = SetupFailure::Step::RelaySocket};
    Endpoint relay = *bound;
    if (relay.address == 0)
        relay.address = m_context.proxyAddress;
    auto socks = std::make_unique<SocksClient>(m_context.proxyHost, m_upstream.port);
    if (!socks->createUdpSocket(relay.address, relay.port) || !setNonBlocking(socks->udpSocket())
        || !connectDatagrams(socks->udpSocket(), socketAddress(relay.address, relay.port))) {
        return SetupFailure{.step = SetupFailure::Step::RelaySocket};
    }
    keepReceivingAfterRefusals(socks->udpSocket());
    if (!m_context.completionPort.associate(socks->udpSocket(), CompletionKey::UdpFlow)) {
        return SetupFailure{.step = SetupFailure::Step::Associate,
                            .error = static_cast<int>(GetLastError()),
                            .socket = socks->udpSocket()};
    }
    m_buffer = makePageBuffer<std::uint8_t>(bufferSize);
    m_socks = std::move(socks);
    return std::nullopt;
}

void UdpFlow::send(std::span<const std::uint8_t> payload)
{
    const UdpDestination destination = destinationOf(m_id.key);
    const std::lock_guard lock(m_mutex);
    if (m_closed)
        return;
    if (m_exchange || !m_socks)
        m_waiting.add(storeDatagram(destination, payload));
    else
        sendNow({destination, payload});
}

void UdpFlow::sendNow(const FlowDatagram &datagram)
{
    const UdpDestination &to = datagram.destination;
    if (to.family == 6)
        m_socks->sendUdpIPv6(datagram.payload, to.ip6, to.port);
    else
        m_socks->sendUdpIPv4(datagram.payload, to.ip, to.port);
}

UdpFlow::Posted UdpFlow::postReceive()
{
    const std::lock_guard lock(m_mutex);
    if (m_closed)
        return {.state = Posted::State::Closed};
    if (!m_socks)
        return {.state = Posted::State::NotReady};
    return issueReceive();
}

UdpFlow::Posted UdpFlow::issueReceive()
{
    using State = CompletionPort::Issued::State;
    const SOCKET socket = m_socks->udpSocket();
    if (m_receivePending)
        return {.state = Posted::State::AlreadyPending, .socket = socket};
    // Through the port even when a datagram is there already: a worker that went on by itself would see neither the
    // end of the tunnel nor anybody else's completions for as long as datagrams keep coming.
    const CompletionPort::Issued issued =
        m_context.completionPort.issue(m_receive, shared_from_this(), false, [&](DWORD &bytes) {
            WSABUF room{.len = bufferSize, .buf = reinterpret_cast<char *>(m_buffer.get())};
            DWORD flags = 0;
            return WSARecvFrom(socket, &room, 1, &bytes, &flags, nullptr, nullptr, &m_receive, nullptr) == 0;
        });
    if (issued.state == State::Failed)
        return {.state = Posted::State::Failed, .error = issued.error, .socket = socket};
    m_receivePending = true;
    return {.state = Posted::State::InFlight, .socket = socket};
}

void UdpFlow::onReceived(DWORD bytes, DWORD error)
{
    {
        const std::lock_guard lock(m_mutex);
        m_receivePending = false;
        if (m_closed)
            return;
    }
    m_context.onReceived(shared_from_this(), bytes, error);
}

/// RFC 1928 section 7: an association ends with the connection that its request came on. The proxy has nothing to say
/// there, so a receive completes when it ends. False: it has ended, or nobody can tell when it will.
bool UdpFlow::watchControl()
{
    using State = CompletionPort::Issued::State;
    const UdpFlowPtr self = shared_from_this();
    const CompletionPort::Issued issued =
        m_context.completionPort.issue(m_controlWatch, self, m_controlSkipsPort, [this](DWORD &bytes) {
            WSABUF room{.len = static_cast<ULONG>(m_controlBytes.size()), .buf = m_controlBytes.data()};
            DWORD flags = 0;
            return WSARecv(m_control.get(), &room, 1, &bytes, &flags, &m_controlWatch, nullptr) == 0;
        });
    if (issued.state == State::InFlight)
        return true;
    if (issued.state == State::Failed || issued.bytes == 0)
        return false;
    return m_context.completionPort.post(m_controlWatch, self, CompletionKey::UdpFlow, issued.bytes);
}

void UdpFlow::onControlRead(DWORD bytes, DWORD error)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_closed || (error == NO_ERROR && bytes > 0 && watchControl()))
            return;
    }
    m_context.onControlEnded(shared_from_this());
}

void UdpFlow::cancelIo()
{
    m_closed = true;
    if (m_exchange)
        m_exchange->cancel();
    if (m_control)
        CancelIoEx(reinterpret_cast<HANDLE>(m_control.get()), nullptr);
    if (m_socks)
        CancelIoEx(reinterpret_cast<HANDLE>(m_socks->udpSocket()), nullptr);
}

void UdpFlow::cancel()
{
    const UdpFlowPtr self = shared_from_this(); // the exchange's callback may own the last reference
    const std::lock_guard lock(m_mutex);
    cancelIo();
}

void UdpFlow::close()
{
    const UdpFlowPtr self = shared_from_this();
    const std::lock_guard lock(m_mutex);
    cancelIo();
    if (m_control)
        resetWhenClosed(m_control.get()); // nothing is on its way, and thousands of flows leave no TIME_WAIT behind
    m_control.reset();
    m_socks.reset();
}

} // namespace ruvo
