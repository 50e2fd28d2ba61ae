#include "nat/relay_session.h"

#include "common/log_category.h"
#include "common/steady_clock.h"
#include "io/short_pause.h"
#include "io/socket_options.h"

#include <utility>

namespace ruvo {

namespace {

constexpr DWORD bufferSize = 0x10000;
/// So many chunks are relayed on the spot; then other relays have their turn.
constexpr int maxChunksAtOnce = 16;
/// After so many pauses in a row the rest goes out by itself, and the worker is free.
constexpr int maxPauses = 10;

/// How connections end every day.
bool isSilent(int error)
{
    return error == WSAECONNABORTED || error == WSAECONNRESET || error == WSAESHUTDOWN;
}

} // namespace

RelaySession::Side::Side(Socket owned, const char *failure)
    : socket(std::move(owned)), receiveFailure(failure), buffer(makePageBuffer<char>(bufferSize))
{}

RelaySession::RelaySession(std::uint64_t id, Socket client, Socket destination, bool isDirect,
                           CompletionPort &completionPort, std::function<void()> onClosed)
    : m_id(id)
    , m_isDirect(isDirect)
    , m_completionPort(completionPort)
    , m_onClosed(std::move(onClosed))
    , m_client(std::move(client), "[TCP-NAT-IOCP] WSARecv (client) failed:")
    , m_destination(std::move(destination), "[TCP-NAT-IOCP] WSARecv (dest) failed:")
{}

void RelaySession::start(std::optional<bool> destinationSkipsPort)
{
    m_destination.skipsPort = destinationSkipsPort.value_or(false);
    if (!associate(m_client, "[TCP-NAT-IOCP] Failed to associate client socket with IOCP:")
        || (!destinationSkipsPort
            && !associate(m_destination, "[TCP-NAT-IOCP] Failed to associate dest socket with IOCP:"))) {
        return close(Closing::Abortive);
    }
    setNoDelay(m_client.socket.get());
    setNoDelay(m_destination.socket.get());
    // Both are issued before anything is relayed: an end that one finds must not come before the other's first bytes.
    const std::optional<DWORD> early = postReceive(m_client, false);
    const std::optional<DWORD> firstWords = postReceive(m_destination, false);
    if (early && take(m_client, *early))
        receiveFrom(m_client);
    if (firstWords && take(m_destination, *firstWords))
        receiveFrom(m_destination);
}

bool RelaySession::associate(Side &side, const char *failure)
{
    if (m_completionPort.associate(side.socket.get(), CompletionKey::RelayReceive)) {
        side.skipsPort = skipPortOnSuccess(side.socket.get());
        return true;
    }
    const DWORD error = GetLastError();
    qCWarning(lcRuvod) << failure << error;
    return false;
}

void RelaySession::receiveFrom(Side &side)
{
    for (int chunks = 0;; ++chunks) {
        // Nor does a worker wait several times in a row for one slow reader.
        const bool isTurnOver = chunks >= maxChunksAtOnce || otherSide(side).delayed;
        const std::optional<DWORD> bytes = postReceive(side, isTurnOver);
        if (!bytes || !take(side, *bytes))
            return;
    }
}

/// What has come at once; nothing if the receive is in flight (with `throughPort` it is, unless the port refuses), or
/// if the relay has ended.
std::optional<DWORD> RelaySession::postReceive(Side &side, bool throughPort)
{
    std::unique_lock lock(m_mutex);
    if (m_closed || side.receivePending.exchange(true))
        return std::nullopt;
    if (m_endingSince != 0)
        finish(otherSide(side));
    m_completionPort.begin(side.receive, shared_from_this());
    WSABUF room{.len = bufferSize, .buf = side.buffer.get()};
    DWORD bytes = 0;
    DWORD flags = 0;
    if (WSARecv(side.socket.get(), &room, 1, &bytes, &flags, &side.receive, nullptr) == 0) {
        if (!side.skipsPort
            || (throughPort && m_completionPort.post(side.receive, CompletionKey::RelayReceive, bytes)))
            return std::nullopt;
        const std::shared_ptr<void> self = m_completionPort.abandon(side.receive);
        side.receivePending = false;
        return bytes;
    }
    const int error = WSAGetLastError();
    if (error == WSA_IO_PENDING)
        return std::nullopt;
    const std::shared_ptr<void> self = m_completionPort.abandon(side.receive);
    side.receivePending = false;
    lock.unlock();
    if (!isSilent(error))
        qCWarning(lcRuvod) << side.receiveFailure << error;
    close(Closing::Abortive);
    return std::nullopt;
}

/// The rest of a chunk, to a side that does not keep up. True if the receive on the other side is due; else it waits
/// for what is in flight.
bool RelaySession::sendRest(Side &to)
{
    while (to.unsent.len > 0) {
        switch (postSend(to)) {
        case Issued::InFlight: return false;
        case Issued::Failed: return outlivesFailedSend(to);
        case Issued::Done: break;
        }
    }
    return true;
}

RelaySession::Issued RelaySession::postSend(Side &to)
{
    const std::lock_guard lock(m_mutex);
    if (m_closed || to.sendPending.exchange(true))
        return Issued::InFlight;
    m_completionPort.begin(to.send, shared_from_this());
    DWORD sent = 0;
    const bool isDone = WSASend(to.socket.get(), &to.unsent, 1, &sent, 0, &to.send, nullptr) == 0;
    if (isDone ? !to.skipsPort : WSAGetLastError() == WSA_IO_PENDING)
        return Issued::InFlight;
    const std::shared_ptr<void> self = m_completionPort.abandon(to.send);
    to.sendPending = false;
    if (!isDone)
        return Issued::Failed;
    to.unsent.buf += sent;
    to.unsent.len -= sent;
    return Issued::Done;
}

RelaySession::Side &RelaySession::otherSide(const Side &side)
{
    return &side == &m_client ? m_destination : m_client;
}

RelaySession::Side &RelaySession::sideOf(const ReceiveOperation *operation)
{
    return operation == &m_client.receive ? m_client : m_destination;
}

RelaySession::Side &RelaySession::sideOf(const SendOperation *operation)
{
    return operation == &m_client.send ? m_client : m_destination;
}

void RelaySession::ReceiveOperation::completed(const std::shared_ptr<void> &record, DWORD bytes, DWORD error) noexcept
{
    const RelaySessionPtr session = std::static_pointer_cast<RelaySession>(record);
    session->onReceived(session->sideOf(this), bytes, error);
}

void RelaySession::SendOperation::completed(const std::shared_ptr<void> &record, DWORD bytes, DWORD error) noexcept
{
    const RelaySessionPtr session = std::static_pointer_cast<RelaySession>(record);
    session->onSent(session->sideOf(this), bytes, error);
}

void RelaySession::onReceived(Side &from, DWORD bytes, DWORD error)
{
    from.receivePending = false;
    const bool wasCancelled = error == ERROR_OPERATION_ABORTED && m_endingSince != 0; // by end()
    if (error != NO_ERROR && !wasCancelled)
        return close(Closing::Abortive);
    if (wasCancelled || take(from, bytes))
        receiveFrom(from);
}

/// What has been received. True if the next receive on this side is due.
bool RelaySession::take(Side &from, DWORD bytes)
{
    if (bytes == 0) {
        end(from);
        return false;
    }
    if (m_endingSince != 0 && isFinished(otherSide(from)))
        return true;
    from.received += bytes;
    return forward(from, bytes);
}

bool RelaySession::forward(Side &from, DWORD bytes)
{
    Side &to = otherSide(from);
    WSABUF rest{.len = bytes, .buf = from.buffer.get()};
    to.delayed = false;
    for (int pauses = 0; rest.len > 0;) {
        const int sent = ::send(to.socket.get(), rest.buf, static_cast<int>(rest.len), 0);
        if (sent > 0) {
            rest.buf += sent;
            rest.len -= static_cast<ULONG>(sent);
            continue;
        }
        if (WSAGetLastError() != WSAEWOULDBLOCK)
            return outlivesFailedSend(to);
        if (to.stalled || ++pauses > maxPauses) {
            to.stalled = true;
            to.unsent = rest;
            return sendRest(to);
        }
        shortPause();
        to.delayed = true;
    }
    to.stalled = false;
    return true;
}

void RelaySession::onSent(Side &to, DWORD bytes, DWORD error)
{
    to.sendPending = false;
    to.unsent.buf += bytes;
    to.unsent.len -= bytes;
    if (error == NO_ERROR ? sendRest(to) : outlivesFailedSend(to))
        receiveFrom(otherSide(to));
}

/// What comes for a side that has ended by itself is not missed there: it may have closed whole. What came from it
/// before is still on its way out, and must not be thrown away by a reset. Everything else is at its end.
bool RelaySession::outlivesFailedSend(Side &to)
{
    if (!to.ended)
        close(Closing::Abortive);
    return to.ended;
}

// One direction ends both. What was received before is on its way in the sockets, and closing a socket while unread
// bytes lie in it would reset the connection and throw that away: so both ends are told that nothing follows, and
// what they still send is read and dropped until they are done as well.
void RelaySession::end(Side &side)
{
    Side &other = otherSide(side);
    side.ended = true;
    bool isConnected = true;
    {
        const std::lock_guard lock(m_mutex);
        isConnected = side.finished || isStillConnected(side);
        if (isConnected) {
            std::int64_t notEnding = 0;
            m_endingSince.compare_exchange_strong(notEnding, steadyNanoseconds());
            finish(other);
            // A chunk that is on its way to this side goes out first, even one that has been received and that nobody
            // has looked at yet: postReceive finishes this side then.
            if (other.ended)
                finish(side);
            else if (other.receivePending)
                CancelIoEx(reinterpret_cast<HANDLE>(other.socket.get()), &other.receive);
        }
    }
    if (!isConnected)
        return close(Closing::Abortive);
    if (side.ended && other.ended)
        close(Closing::Graceful);
}

/// A reset whose error nobody told of looks like an end. Nothing is sent by this, and it fails after one.
bool RelaySession::isStillConnected(const Side &side)
{
    return ::send(side.socket.get(), "", 0, 0) == 0 || WSAGetLastError() == WSAEWOULDBLOCK;
}

/// All that goes to this side has gone out.
void RelaySession::finish(Side &side)
{
    if (!std::exchange(side.finished, true))
        ::shutdown(side.socket.get(), SD_SEND);
}

/// Then what still comes for it is dropped.
bool RelaySession::isFinished(const Side &side)
{
    const std::lock_guard lock(m_mutex);
    return side.finished;
}

void RelaySession::abort()
{
    close(Closing::Abortive);
}

// Gracefully: the last that was sent may still lie in a socket, for an application that takes its time to read it.
// What has not even come that far is waited for.
void RelaySession::closeIfOverdue(std::int64_t now)
{
    const std::int64_t since = m_endingSince;
    if (since != 0 && now - since >= endingTime && !m_client.sendPending && !m_destination.sendPending)
        close(Closing::Graceful);
}

void RelaySession::close(Closing closing)
{
    {
        const std::lock_guard lock(m_mutex);
        if (std::exchange(m_closed, true))
            return;
        for (const Side *side : {&m_client, &m_destination}) {
            if (closing == Closing::Abortive)
                resetWhenClosed(side->socket.get());
            if (side->receivePending || side->sendPending)
                CancelIoEx(reinterpret_cast<HANDLE>(side->socket.get()), nullptr);
        }
    }
    m_onClosed();
}

} // namespace ruvo
