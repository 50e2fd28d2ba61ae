// The socket side of a connection that stands: the stream in both directions, and its end.

#include "engine/tcp_connection.h"

#include "common/log_category.h"
#include "engine/tcp_engine.h"
#include "engine/tcp_notes.h"
#include "io/socket_options.h"

#include <algorithm>
#include <utility>

namespace ruvo {

namespace {

/// So many chunks are taken on the spot; then other connections have their turn.
constexpr int maxChunksAtOnce = 16;
/// A queue of this size makes one wonder whether the proxy still reads.
constexpr std::size_t largeQueue = 10'001;

QString firstBytes(std::span<const std::uint8_t> bytes)
{
    QString text;
    for (const std::uint8_t byte : bytes.first(std::min<std::size_t>(bytes.size(), 16)))
        text += QString::asprintf("%02x ", byte);
    return text;
}

} // namespace

TcpConnection::TcpConnection(const ConnectionKey &key, const TcpSender::Opening &opening, TcpEngine &engine)
    : m_key(key)
    , m_engine(engine)
    , m_services(engine.services())
    , m_upstream(m_services.chooseUpstream(key.destinationIp, key.destinationPort))
    , m_name(m_services.nameOf(key))
    , m_stream(opening, engine.outOfOrderBudget(), m_services.trySend)
    , m_lastProgress(m_services.clock())
{}

QString TcpConnection::destination() const
{
    const QString host = m_name.empty() ? destinationText(m_key) : QString::fromStdString(m_name);
    return host + u':' + QString::number(m_key.destinationPort);
}

int TcpConnection::state()
{
    const std::lock_guard lock(m_mutex);
    const TcpState state = m_stream.state();
    return state == TcpState::Connecting && m_exchange ? m_exchange->stage() : static_cast<int>(state);
}

void TcpConnection::giveUp()
{
    m_engine.cleanupConnection(shared_from_this());
}

bool TcpConnection::isClosed()
{
    const std::lock_guard lock(m_mutex);
    return m_isClosed;
}

void TcpConnection::postReceive()
{
    receiveMore(true);
}

void TcpConnection::receiveMore(bool throughPort)
{
    for (int chunks = 0;; ++chunks) {
        const std::optional<DWORD> bytes = issueReceive(throughPort || chunks >= maxChunksAtOnce);
        if (!bytes || !onUpstreamData(*bytes))
            return;
    }
}

/// What has come at once; nothing if the receive is in flight (with `throughPort` it is), or if the connection is
/// over.
std::optional<DWORD> TcpConnection::issueReceive(bool throughPort)
{
    using State = CompletionPort::Issued::State;
    std::unique_lock lock(m_mutex);
    if (m_isClosed)
        return std::nullopt;
    if (!m_socket) {
        if (isDue(TcpNote::ReceiveWithoutSocket))
            qCWarning(lcRuvod) << "[RECV-EARLY-EXIT] conn->socks is null! port:" << port();
        return std::nullopt;
    }
    if (std::exchange(m_isReceiving, true)) {
        if (isDue(TcpNote::ReceiveTwice))
            qCWarning(lcRuvod) << "[RECV-ALREADY-PENDING] Recv already in progress - port:" << port();
        return std::nullopt;
    }
    WSABUF room{.len = bufferSize, .buf = reinterpret_cast<char *>(m_buffer.get())};
    const auto issued =
        m_services.completionPort->issue(m_receive, shared_from_this(), m_skipsPort, [&](DWORD &bytes) {
            DWORD flags = 0;
            return WSARecv(m_socket.get(), &room, 1, &bytes, &flags, &m_receive, nullptr) == 0;
        });
    if (issued.state == State::InFlight
        || (issued.state == State::Done && throughPort
            && m_services.completionPort->post(m_receive, shared_from_this(), CompletionKey::TcpConnection,
                                               issued.bytes))) {
        return std::nullopt;
    }
    m_isReceiving = false;
    if (issued.state == State::Done)
        return issued.bytes;
    lock.unlock();
    m_engine.cleanupConnection(shared_from_this());
    return std::nullopt;
}

void TcpConnection::onReceiveCompleted(DWORD bytes, DWORD error)
{
    {
        const std::lock_guard lock(m_mutex);
        m_isReceiving = false;
        if (m_isClosed)
            return;
    }
    orEnd([&] {
        // A failed receive is the end of the stream for the application too.
        if (onUpstreamData(error == NO_ERROR ? bytes : 0))
            receiveMore(false);
    });
}

/// What has been received; 0 is the end. True if the next receive is due.
bool TcpConnection::onUpstreamData(DWORD bytes)
{
    if (bytes == 0) {
        endDownload();
        return false;
    }
    if (m_stream.state() != TcpState::Established)
        return true; // the application has finished, and takes no more
    const std::span<const std::uint8_t> data(m_buffer.get(), bytes);
    if (isDue(TcpNote::DownloadStarted))
        qCCritical(lcRuvod) << "[DATA-DOWNLOAD] Received" << bytes << "bytes from xray -" << firstBytes(data);
    const TcpStream::Downloaded downloaded = m_stream.download(data);
    m_engine.watch(shared_from_this());
    if (!downloaded.isPaused)
        return true;
    if (isDue(TcpNote::ReceivePaused))
        qCWarning(lcRuvod) << "[BACKPRESSURE] Stopping recv - queue full";
    return false;
}

void TcpConnection::postSend()
{
    const std::size_t queued = m_stream.queuedBytes();
    if (queued >= largeQueue && isDue(TcpNote::QueueLarge)) {
        qCCritical(lcRuvod) << "[QUEUE-LARGE] sendQueue growing - xray not consuming? port:" << port()
                            << "queueSize:" << queued << "bytes dest:" << destination();
    }
    while (const std::optional<TcpStream::Chunk> chunk = m_stream.beginUpload()) {
        if (chunk->drained > 0) {
            m_engine.noteDrained(*this, chunk->drained);
            m_engine.acknowledge(shared_from_this());
        }
        issueSend(chunk->bytes);
    }
    finishUpload();
}

/// A chunk that goes out at once completes on a worker all the same: what the application sends meanwhile is gathered
/// for the next call.
void TcpConnection::issueSend(std::span<const std::uint8_t> bytes)
{
    using State = CompletionPort::Issued::State;
    CompletionPort::Issued issued;
    {
        const std::lock_guard lock(m_mutex);
        if (m_isClosed || !m_socket)
            return m_stream.abandonUpload();
        m_sendSize = static_cast<DWORD>(bytes.size());
        WSABUF data{.len = m_sendSize,
                    .buf = const_cast<char *>(reinterpret_cast<const char *>(bytes.data()))}; // only read
        issued = m_services.completionPort->issue(m_send, shared_from_this(), m_skipsPort, [&](DWORD &sent) {
            return WSASend(m_socket.get(), &data, 1, &sent, 0, &m_send, nullptr) == 0;
        });
        if (issued.state == State::Done
            && m_services.completionPort->post(m_send, shared_from_this(), CompletionKey::TcpConnection,
                                               issued.bytes)) {
            issued.state = State::InFlight;
        }
    }
    if (issued.state == State::InFlight) {
        if (isDue(TcpNote::SendIssued))
            qCCritical(lcRuvod) << "[SEND-PENDING] WSASend posted - port:" << port();
        return;
    }
    if (issued.state == State::Done) // and the port refuses: this thread goes on
        return static_cast<void>(takeSent(issued.bytes));
    if (isDue(TcpNote::SendFailed)) {
        qCCritical(lcRuvod) << "[SEND-FAIL] WSASend failed (not pending) - port:" << port()
                            << "error:" << issued.error << "queueSize:" << m_stream.queuedBytes() + bytes.size();
    }
    m_stream.abandonUpload();
    m_engine.cleanupConnection(shared_from_this());
}

/// So much of the chunk has gone out; the rest follows. True if it is done.
bool TcpConnection::takeSent(DWORD bytes)
{
    noteProgress(m_services.clock());
    if (isDue(TcpNote::SendDone)) {
        qCCritical(lcRuvod) << "[SOCKS5-SEND] WSASend SUCCESS - port:" << port() << "sent:" << bytes
                            << "bytes expected:" << m_sendSize;
    }
    const std::span<const std::uint8_t> rest = m_stream.advanceUpload(bytes);
    if (rest.empty())
        return true;
    issueSend(rest);
    return false;
}

void TcpConnection::onSendCompleted(DWORD bytes, DWORD error)
{
    if (error != NO_ERROR || isClosed()) {
        m_stream.abandonUpload();
        return m_engine.cleanupConnection(shared_from_this());
    }
    orEnd([&] {
        if (takeSent(bytes))
            postSend();
    });
}

void TcpConnection::endUpload()
{
    bool isConnected = false;
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
        isConnected = static_cast<bool>(m_socket);
    }
    noteProgress(m_services.clock());
    if (!isConnected) {
        close(Closing::Abortive);
        return m_engine.endIfDone(shared_from_this());
    }
    postSend();
    // Read and dropped to its end: closing a socket with unread bytes resets the connection, and what the application
    // sent last would be lost on its way. Somebody is at it, unless it waits for the application to take more.
    if (m_stream.endPause())
        postReceive();
}

void TcpConnection::endDownload()
{
    noteProgress(m_services.clock());
    // The state first: what the application sends from here on is not acknowledged, so that nothing that is gets lost
    // with the socket.
    const bool isFirst = m_stream.finishDownload();
    {
        const std::lock_guard lock(m_mutex);
        m_isUpstreamEnded = true;
        m_isEnding = true;
    }
    if (isFirst) {
        m_engine.beginClosing(shared_from_this());
        m_engine.watch(shared_from_this()); // the FIN itself may have found no room
    }
    finishUpload();
}

/// Once one side has finished and nothing of the application's is left, the upstream is told; once it has finished as
/// well, the connection to it is closed.
void TcpConnection::finishUpload()
{
    bool isToldEnd = false;
    bool isOver = false;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_isEnding || m_isClosed || !m_socket || !m_stream.isUploadIdle())
            return;
        if (!m_isShutDown && ::shutdown(m_socket.get(), SD_SEND) == 0)
            m_isShutDown = true;
        isToldEnd = m_isShutDown;
        isOver = m_isUpstreamEnded;
    }
    if (isOver) {
        close(isToldEnd ? Closing::Graceful : Closing::Abortive);
        m_engine.endIfDone(shared_from_this());
    } else if (!isToldEnd) { // it has gone; what waits for the application has not
        close(Closing::Abortive);
        m_engine.endIfDone(shared_from_this());
    }
}

void TcpConnection::close(Closing closing)
{
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_isClosed, true))
        return;
    if (m_exchange)
        m_exchange->cancel();
    if (!m_socket)
        return;
    // Once it was told the end it has the whole, or the system is still sending it.
    if (closing == Closing::Abortive && !m_isShutDown)
        resetWhenClosed(m_socket.get());
    CancelIoEx(reinterpret_cast<HANDLE>(m_socket.get()), nullptr);
}

bool TcpConnection::isDone()
{
    return isClosed() && !m_stream.hasWork();
}

void TcpConnection::expireExchange(SteadyTime now)
{
    PortExchangePtr exchange;
    {
        const std::lock_guard lock(m_mutex);
        exchange = m_exchange;
    }
    if (exchange)
        exchange->expireIfOverdue(now);
}

bool TcpConnection::isOverdue(SteadyTime now) const
{
    const TcpState state = m_stream.state();
    if (state == TcpState::Connecting || (state == TcpState::Established && m_isHeard))
        return false;
    return now - m_lastProgress.load() >= patience;
}

} // namespace ruvo
