#include "socks5/port_exchange.h"

#include "io/socket_options.h"
#include "io/winsock_extension.h"

#include <utility>

namespace ruvo {

namespace {

/// A local port of connections that come and go is taken from those for outgoing ones, and shared by all that go to
/// different places: a bind takes a port for itself otherwise. Failure does not matter.
void shareLocalPort(SOCKET socket)
{
    constexpr int reuseUnicastPort = 0x3007; // SO_REUSE_UNICASTPORT
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, reuseUnicastPort, reinterpret_cast<const char *>(&on), sizeof(on));
}

bool bindToAnyAddress(SOCKET socket)
{
    const sockaddr_in any = socketAddress(INADDR_ANY, 0);
    return bind(socket, reinterpret_cast<const sockaddr *>(&any), sizeof(any)) == 0;
}

} // namespace

PortExchange::PortExchange(CompletionPort &completionPort, PortExchangePlan plan, Callback callback)
    : m_completionPort(completionPort)
    , m_plan(std::move(plan))
    , m_callback(std::move(callback))
    , m_exchange(m_plan.request ? std::move(*m_plan.request) : socks5::Bytes())
{}

void PortExchange::start()
{
    std::unique_lock lock(m_mutex);
    if (m_over)
        return;
    if (std::optional<PortExchangeFailure> failure = openSocket())
        return finish(std::move(lock), std::unexpected(std::move(*failure)));
    goOn(std::move(lock));
}

std::optional<PortExchangeFailure> PortExchange::openSocket()
{
    m_socket.reset(::ruvo::openSocket(SOCK_STREAM, IPPROTO_TCP));
    const SOCKET socket = m_socket.get();
    if (!m_socket)
        return PortExchangeFailure{.step = Step::CreateSocket, .error = WSAGetLastError()};
    if (m_plan.request)
        setProxyBuffers(socket);
    if (m_plan.noDelay)
        setNoDelay(socket);
    if (m_plan.prepare)
        std::exchange(m_plan.prepare, nullptr)(socket);
    takeRefusalAtOnce(socket, m_plan.peer.address);
    shareLocalPort(socket);
    // ConnectEx takes a bound socket only.
    if (!bindToAnyAddress(socket))
        return PortExchangeFailure{.step = Step::Bind, .error = WSAGetLastError()};
    if (!m_completionPort.associate(socket, m_plan.key)) {
        return PortExchangeFailure{.step = Step::Associate,
                                   .error = static_cast<int>(GetLastError()),
                                   .socket = socket,
                                   .port = m_completionPort.handle()};
    }
    m_skipsPort = skipPortOnSuccess(socket);
    if (!connectExPointer(socket))
        return PortExchangeFailure{.step = Step::FindConnectEx, .error = WSAGetLastError()};
    return std::nullopt;
}

/// Until something is in flight or the outcome is known.
void PortExchange::goOn(std::unique_lock<std::mutex> lock)
{
    for (;;) {
        const CompletionPort::Issued issued = m_stage == connectingStage ? issueConnect() : issueTransfer();
        if (issued.state == CompletionPort::Issued::State::InFlight) {
            m_inFlight = true;
            return;
        }
        std::optional<Outcome> outcome;
        if (issued.state == CompletionPort::Issued::State::Failed)
            outcome = failureAt({Step::IssueConnect, Step::IssueSend, Step::IssueReceive}, issued.error);
        else
            outcome = take(issued.bytes);
        if (outcome)
            return finish(std::move(lock), std::move(*outcome));
    }
}

CompletionPort::Issued PortExchange::issueConnect()
{
    return m_completionPort.issue(m_operation, shared_from_this(), m_skipsPort, [this](DWORD &bytes) {
        const sockaddr_in peer = socketAddress(m_plan.peer.address, m_plan.peer.port);
        return connectExPointer(m_socket.get())(m_socket.get(), reinterpret_cast<const sockaddr *>(&peer),
                                                sizeof(peer), nullptr, 0, &bytes, &m_operation)
               != FALSE;
    });
}

CompletionPort::Issued PortExchange::issueTransfer()
{
    return m_completionPort.issue(m_operation, shared_from_this(), m_skipsPort, [this](DWORD &bytes) {
        if (const socks5::ByteView next = m_exchange.toSend(); !next.empty()) {
            // Winsock has one structure for both directions; what is sent from it is only read.
            WSABUF buffer{.len = static_cast<ULONG>(next.size()),
                          .buf = const_cast<char *>(reinterpret_cast<const char *>(next.data()))};
            return WSASend(m_socket.get(), &buffer, 1, &bytes, 0, &m_operation, nullptr) == 0;
        }
        const std::span<std::uint8_t> room = m_exchange.room();
        WSABUF buffer{.len = static_cast<ULONG>(room.size()), .buf = reinterpret_cast<char *>(room.data())};
        DWORD flags = 0;
        return WSARecv(m_socket.get(), &buffer, 1, &bytes, &flags, &m_operation, nullptr) == 0;
    });
}

/// What has been done successfully. Nothing: there is more to do.
std::optional<PortExchange::Outcome> PortExchange::take(DWORD bytes)
{
    if (m_stage == connectingStage) {
        // A socket that ConnectEx has connected knows no address, and no shutdown, before.
        setsockopt(m_socket.get(), SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
        if (!m_plan.request)
            return established();
    } else if (m_exchange.state() == socks5::SocksExchange::State::Sends) {
        m_exchange.sent(bytes);
    } else {
        m_exchange.received(bytes);
        if (!m_acceptedAt && m_exchange.isGreetingAccepted())
            m_acceptedAt = steadyNow();
    }
    switch (m_exchange.state()) {
    case socks5::SocksExchange::State::Succeeded: return established();
    case socks5::SocksExchange::State::Failed:
        return std::unexpected(
            PortExchangeFailure{.step = Step::Answer, .socks = m_exchange.failure(), .acceptedAt = m_acceptedAt});
    default: m_stage = std::to_underlying(m_exchange.step()); return std::nullopt;
    }
}

PortExchange::Outcome PortExchange::established()
{
    return EstablishedExchange{.socket = std::move(m_socket),
                               .skipsPort = m_skipsPort,
                               .bound = m_exchange.bound(),
                               .acceptedAt = m_acceptedAt};
}

void PortExchange::onCompleted(DWORD bytes, DWORD error)
{
    std::unique_lock lock(m_mutex);
    m_inFlight = false;
    if (m_over)
        return;
    std::optional<Outcome> outcome;
    if (error != NO_ERROR)
        outcome = failureAt({Step::Connect, Step::Send, Step::Receive}, completionError(error));
    else
        outcome = take(bytes);
    if (outcome)
        finish(std::move(lock), std::move(*outcome));
    else
        goOn(std::move(lock));
}

/// The port tells of a failure in codes of the system's: a refused connection is 1225 there, and 10061 for Winsock.
int PortExchange::completionError(DWORD portError)
{
    DWORD bytes = 0;
    DWORD flags = 0;
    if (WSAGetOverlappedResult(m_socket.get(), &m_operation, &bytes, FALSE, &flags))
        return static_cast<int>(portError);
    return WSAGetLastError();
}

PortExchange::Outcome PortExchange::failureAt(StepsOfCall steps, int error)
{
    if (m_stage == connectingStage)
        return std::unexpected(PortExchangeFailure{.step = steps.connect, .error = error});
    const bool isSending = m_exchange.state() == socks5::SocksExchange::State::Sends;
    m_exchange.cutOff();
    return std::unexpected(PortExchangeFailure{.step = isSending ? steps.send : steps.receive,
                                               .error = error,
                                               .socks = m_exchange.failure(),
                                               .acceptedAt = m_acceptedAt});
}

void PortExchange::finish(std::unique_lock<std::mutex> lock, Outcome outcome)
{
    m_over = true;
    Callback callback = std::move(m_callback);
    giveUpSocket();
    lock.unlock();
    callback(std::move(outcome));
}

/// Under the mutex. Nothing to do where the outcome has taken it.
void PortExchange::giveUpSocket()
{
    if (m_socket && m_plan.resetsWhenGivenUp)
        resetWhenClosed(m_socket.get());
    m_socket.reset();
}

bool PortExchange::cancel()
{
    Callback dropped; // after the lock: it may own what takes locks when it goes
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_over, true))
        return false;
    dropped = std::move(m_callback);
    giveUpSocket();
    return true;
}

void PortExchange::expireIfOverdue(SteadyTime now)
{
    std::unique_lock lock(m_mutex);
    // Not before start: nothing that it would wait for has begun.
    if (!m_over && m_inFlight && now >= m_plan.deadline)
        finish(std::move(lock), failureAt({Step::Connect, Step::Send, Step::Receive}, WSAETIMEDOUT));
}

} // namespace ruvo
