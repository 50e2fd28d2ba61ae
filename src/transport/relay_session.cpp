#include "transport/relay_session.h"

#include "common/log_category.h"
#include "common/steady_clock.h"
#include "transport/short_pause.h"
#include "transport/socket_options.h"

#include <utility>

namespace ruvo {

namespace {

constexpr DWORD bufferSize = 0x10000;
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

void RelaySession::start()
{
    if (!associate(m_client, "[TCP-NAT-IOCP] Failed to associate client socket with IOCP:")
        || !associate(m_destination, "[TCP-NAT-IOCP] Failed to associate dest socket with IOCP:")) {
        return close(Closing::Abortive);
    }
    setNoDelay(m_client.socket.get());
    setNoDelay(m_destination.socket.get());
    postReceive(m_client);
    postReceive(m_destination);
}

bool RelaySession::associate(const Side &side, const char *failure)
{
    if (m_completionPort.associate(side.socket.get(), CompletionKey::RelayReceive))
        return true;
    const DWORD error = GetLastError();
    qCWarning(lcRuvod) << failure << error;
    return false;
}

void RelaySession::postReceive(Side &side)
{
    std::unique_lock lock(m_mutex);
    if (m_closed || side.receivePending.exchange(true))
        return;
    if (m_endingSince != 0)
        finish(otherSide(side));
    m_completionPort.begin(side.receive, shared_from_this());
    WSABUF room{.len = bufferSize, .buf = side.buffer.get()};
    DWORD flags = 0;
    if (WSARecv(side.socket.get(), &room, 1, nullptr, &flags, &side.receive, nullptr) == 0)
        return;
    const int error = WSAGetLastError();
    if (error == WSA_IO_PENDING)
        return;
    const std::shared_ptr<void> self = m_completionPort.abandon(side.receive);
    side.receivePending = false;
    lock.unlock();
    if (!isSilent(error))
        qCWarning(lcRuvod) << side.receiveFailure << error;
    close(Closing::Abortive);
}

/// The rest of a chunk, to a side that does not keep up. The receive on the other side waits for it.
void RelaySession::postSend(Side &side)
{
    std::unique_lock lock(m_mutex);
    if (m_closed || side.sendPending.exchange(true))
        return;
    m_completionPort.begin(side.send, shared_from_this());
    if (WSASend(side.socket.get(), &side.unsent, 1, nullptr, 0, &side.send, nullptr) == 0
        || WSAGetLastError() == WSA_IO_PENDING) {
        return;
    }
    const std::shared_ptr<void> self = m_completionPort.abandon(side.send);
    side.sendPending = false;
    lock.unlock();
    onSendFailed(side);
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
    if (error == ERROR_OPERATION_ABORTED && m_endingSince != 0) // by end()
        return postReceive(from);
    if (error != NO_ERROR)
        return close(Closing::Abortive);
    if (bytes == 0)
        return end(from);
    if (m_endingSince != 0 && isFinished(otherSide(from)))
        return postReceive(from);
    from.received += bytes;
    forward(from, bytes);
}

void RelaySession::forward(Side &from, DWORD bytes)
{
    Side &to = otherSide(from);
    WSABUF rest{.len = bytes, .buf = from.buffer.get()};
    for (int pauses = 0; rest.len > 0;) {
        const int sent = ::send(to.socket.get(), rest.buf, static_cast<int>(rest.len), 0);
        if (sent > 0) {
            rest.buf += sent;
            rest.len -= static_cast<ULONG>(sent);
            continue;
        }
        if (WSAGetLastError() != WSAEWOULDBLOCK)
            return onSendFailed(to);
        if (to.stalled || ++pauses > maxPauses) {
            to.stalled = true;
            to.unsent = rest;
            return postSend(to);
        }
        shortPause();
    }
    to.stalled = false;
    postReceive(from);
}

void RelaySession::onSent(Side &to, DWORD bytes, DWORD error)
{
    to.sendPending = false;
    if (error != NO_ERROR)
        return onSendFailed(to);
    to.unsent.buf += bytes;
    to.unsent.len -= bytes;
    if (to.unsent.len > 0)
        postSend(to);
    else
        postReceive(otherSide(to));
}

/// What comes for a side that has ended by itself is not missed there: it may have closed whole. What came from it
/// before is still on its way out, and must not be thrown away by a reset.
void RelaySession::onSendFailed(Side &to)
{
    if (to.ended)
        postReceive(otherSide(to));
    else
        close(Closing::Abortive);
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
            CancelIoEx(reinterpret_cast<HANDLE>(side->socket.get()), nullptr);
        }
    }
    m_onClosed();
}

} // namespace ruvo
