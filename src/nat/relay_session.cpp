#include "nat/relay_session.h"

#include "common/capped_log.h"
#include "common/log_category.h"
#include "io/socket_options.h"

#include <utility>

namespace ruvo {

namespace {

constexpr DWORD bufferSize = 0x10000;
/// So many chunks are relayed on the spot; then other relays have their turn.
constexpr int maxChunksAtOnce = 16;

/// How connections end every day.
bool isSilent(int error)
{
    return error == WSAECONNABORTED || error == WSAECONNRESET || error == WSAESHUTDOWN;
}

void advance(WSABUF &rest, DWORD bytes)
{
    rest.buf += bytes;
    rest.len -= bytes;
}

using IssuedState = CompletionPort::Issued::State;

} // namespace

RelaySession::Direction::Direction(RelaySession &owner, Side &sender, Side &receiver, const char *failure)
    : relay(owner), from(sender), to(receiver), receiveFailure(failure), buffer(makePageBuffer<char>(bufferSize))
{}

void RelaySession::Direction::takeTurn()
{
    if (state == State::Receiving)
        state = State::Relaying;
}

RelaySession::RelaySession(std::uint64_t id, Socket &&client, Socket &&destination, bool isDirect,
                           CompletionPort &completionPort, std::function<void()> onClosed)
    : m_id(id)
    , m_isDirect(isDirect)
    , m_completionPort(completionPort)
    , m_onClosed(std::move(onClosed))
    , m_upload(*this, m_client, m_destination, "[TCP-NAT-IOCP] WSARecv (client) failed:")
    , m_download(*this, m_destination, m_client, "[TCP-NAT-IOCP] WSARecv (dest) failed:")
    , m_client{std::move(client)}
    , m_destination{std::move(destination)}
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
    const std::optional<DWORD> early = postReceive(m_upload, false);
    const std::optional<DWORD> firstWords = postReceive(m_download, false);
    if (early && take(m_upload, *early))
        receiveFrom(m_upload);
    if (firstWords && take(m_download, *firstWords))
        receiveFrom(m_download);
}

bool RelaySession::associate(Side &side, const char *failure)
{
    if (m_completionPort.associate(side.socket.get(), CompletionKey::RelayReceive)) {
        side.skipsPort = skipPortOnSuccess(side.socket.get());
        return true;
    }
    const DWORD error = GetLastError();
    static CappedLog s_failures[] = {CappedLog(10, 100), CappedLog(10, 100)}; // of the client's side and the other
    if (s_failures[&side == &m_client ? 0 : 1].take())
        qCWarning(lcRuvod) << failure << error;
    return false;
}

RelaySession::Direction &RelaySession::opposite(const Direction &direction)
{
    return &direction == &m_upload ? m_download : m_upload;
}

void RelaySession::receiveFrom(Direction &direction)
{
    for (int chunks = 0;; ++chunks) {
        const std::optional<DWORD> bytes = postReceive(direction, chunks >= maxChunksAtOnce);
        if (!bytes || !take(direction, *bytes))
            return;
    }
}

/// What has come at once; nothing if the receive is in flight (with `throughPort` it is, unless the port refuses), or
/// if the relay has ended.
std::optional<DWORD> RelaySession::postReceive(Direction &direction, bool throughPort)
{
    const auto receive = [&direction](DWORD &bytes) {
        WSABUF room{.len = bufferSize, .buf = direction.buffer.get()};
        DWORD flags = 0;
        return WSARecv(direction.from.socket.get(), &room, 1, &bytes, &flags, &direction.receive, nullptr) == 0;
    };
    CompletionPort::Issued issued;
    {
        const std::lock_guard lock(m_mutex);
        if (m_closed)
            return std::nullopt;
        if (m_endingSince)
            tellReceiver(direction, State::Dropping);
        else
            direction.state = State::Receiving;
        issued = m_completionPort.issue(direction.receive, shared_from_this(), direction.from.skipsPort, receive);
        if (issued.state == IssuedState::InFlight)
            return std::nullopt;
        if (issued.state == IssuedState::Done && throughPort
            && m_completionPort.post(direction.receive, shared_from_this(), CompletionKey::RelayReceive,
                                     issued.bytes)) {
            return std::nullopt;
        }
        direction.takeTurn();
    }
    if (issued.state == IssuedState::Done)
        return issued.bytes;
    static CappedLog s_failures[] = {CappedLog(10, 100), CappedLog(10, 100)}; // of the upload and the download
    if (!isSilent(issued.error) && s_failures[&direction == &m_upload ? 0 : 1].take())
        qCWarning(lcRuvod) << direction.receiveFailure << issued.error;
    close(Closing::Abortive);
    return std::nullopt;
}

void RelaySession::onReceived(Direction &direction, DWORD bytes, DWORD error)
{
    direction.takeTurn();
    const bool wasCancelled = error == ERROR_OPERATION_ABORTED && isEnding(); // by end()
    if (error != NO_ERROR && !wasCancelled)
        return close(Closing::Abortive);
    if (wasCancelled || take(direction, bytes))
        receiveFrom(direction);
}

/// What has been received. True if the next receive is due.
bool RelaySession::take(Direction &direction, DWORD bytes)
{
    if (bytes == 0) {
        end(direction);
        return false;
    }
    if (direction.state == State::Dropping)
        return true;
    direction.received += bytes;
    return forward(direction, bytes);
}

/// The whole chunk, as far as there is room for it at once: a worker that waited for slow readers would be missed by
/// everybody else. True if the next receive is due.
bool RelaySession::forward(Direction &direction, DWORD bytes)
{
    direction.rest = {.len = bytes, .buf = direction.buffer.get()};
    while (direction.rest.len > 0) {
        const int sent =
            ::send(direction.to.socket.get(), direction.rest.buf, static_cast<int>(direction.rest.len), 0);
        if (sent > 0)
            advance(direction.rest, static_cast<DWORD>(sent));
        else
            return WSAGetLastError() == WSAEWOULDBLOCK ? sendRest(direction) : outlivesFailedSend(direction);
    }
    return true;
}

/// The rest of a chunk, to a receiver that does not keep up. True if the next receive is due; else it waits for what
/// is in flight.
bool RelaySession::sendRest(Direction &direction)
{
    while (direction.rest.len > 0) {
        const CompletionPort::Issued issued = postSend(direction);
        switch (issued.state) {
        case IssuedState::InFlight: return false;
        case IssuedState::Failed: return outlivesFailedSend(direction);
        case IssuedState::Done: advance(direction.rest, issued.bytes); break;
        }
    }
    return true;
}

/// Once the relay has closed nothing more is due: as if it were in flight.
CompletionPort::Issued RelaySession::postSend(Direction &direction)
{
    const auto send = [&direction](DWORD &bytes) {
        return WSASend(direction.to.socket.get(), &direction.rest, 1, &bytes, 0, &direction.send, nullptr) == 0;
    };
    const std::lock_guard lock(m_mutex);
    if (m_closed)
        return {.state = IssuedState::InFlight};
    direction.state = State::Sending;
    const CompletionPort::Issued issued =
        m_completionPort.issue(direction.send, shared_from_this(), direction.to.skipsPort, send);
    if (issued.state != IssuedState::InFlight)
        direction.state = State::Relaying;
    return issued;
}

void RelaySession::onSent(Direction &direction, DWORD bytes, DWORD error)
{
    direction.state = State::Relaying;
    advance(direction.rest, bytes);
    if (error == NO_ERROR ? sendRest(direction) : outlivesFailedSend(direction))
        receiveFrom(direction);
}

/// What comes for a side that has ended by itself is not missed there: it may have closed whole. What came from it
/// before is still on its way out, and must not be thrown away by a reset. Everything else is at its end.
bool RelaySession::outlivesFailedSend(const Direction &direction)
{
    const bool hasReceiverEnded = opposite(direction).state == State::Ended;
    if (!hasReceiverEnded)
        close(Closing::Abortive);
    return hasReceiverEnded;
}

// One direction ends both. What was received before is on its way in the sockets, and closing a socket while unread
// bytes lie in it would reset the connection and throw that away: so both ends are told that nothing follows, and
// what they still send is read and dropped until they are done as well.
void RelaySession::end(Direction &direction)
{
    Direction &other = opposite(direction);
    bool isConnected = true;
    bool haveBothEnded = false;
    {
        const std::lock_guard lock(m_mutex);
        isConnected = other.isReceiverTold() || isStillConnected(direction.from);
        if (isConnected) {
            if (!m_endingSince)
                m_endingSince = steadyNow();
            tellReceiver(direction, State::Ended);
            // A chunk that is on its way in the other direction goes out first, even one that has been received and
            // that nobody has looked at yet: postReceive tells that direction's receiver then.
            if (other.state == State::Receiving)
                cancel(other);
            haveBothEnded = other.state == State::Ended;
        }
    }
    if (!isConnected)
        return close(Closing::Abortive);
    if (haveBothEnded)
        close(Closing::Graceful);
}

bool RelaySession::isEnding()
{
    const std::lock_guard lock(m_mutex);
    return m_endingSince.has_value();
}

/// A reset whose error nobody told of looks like an end. Nothing is sent by this, and it fails after one.
bool RelaySession::isStillConnected(const Side &side)
{
    return ::send(side.socket.get(), "", 0, 0) == 0 || WSAGetLastError() == WSAEWOULDBLOCK;
}

/// All that goes to it has gone out: nothing follows. Under m_mutex.
void RelaySession::tellReceiver(Direction &direction, State state)
{
    if (!direction.isReceiverTold())
        ::shutdown(direction.to.socket.get(), SD_SEND);
    direction.state = state;
}

void RelaySession::abort()
{
    close(Closing::Abortive);
}

// Gracefully: the last that was sent may still lie in a socket, for an application that takes its time to read it.
// What has not even come that far is waited for.
void RelaySession::closeIfOverdue(SteadyTime now)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_endingSince || now - *m_endingSince < endingTime || m_upload.state == State::Sending
            || m_download.state == State::Sending) {
            return;
        }
    }
    close(Closing::Graceful);
}

/// What is in flight, if anything is. Under m_mutex.
void RelaySession::cancel(Direction &direction)
{
    if (direction.state == State::Sending)
        CancelIoEx(reinterpret_cast<HANDLE>(direction.to.socket.get()), &direction.send);
    else if (direction.state == State::Receiving || direction.state == State::Dropping)
        CancelIoEx(reinterpret_cast<HANDLE>(direction.from.socket.get()), &direction.receive);
}

void RelaySession::close(Closing closing)
{
    {
        const std::lock_guard lock(m_mutex);
        if (std::exchange(m_closed, true))
            return;
        for (Direction *direction : {&m_upload, &m_download}) {
            if (closing == Closing::Abortive)
                resetWhenClosed(direction->from.socket.get());
            cancel(*direction);
        }
    }
    m_onClosed();
}

} // namespace ruvo
