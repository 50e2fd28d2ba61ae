#include "engine/tcp_engine.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "engine/tcp_notes.h"
#include "packet/packet_headers.h"

#include <QRandomGenerator>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace ruvo {

namespace {

/// The first number of ours is as small as that.
constexpr std::uint32_t initialSequences = 32'768;

bool isOpening(const TcpSegment &segment)
{
    return (segment.flags & (tcpSyn | tcpAck)) == tcpSyn;
}

QString hexBytes(std::span<const std::uint8_t> bytes)
{
    QString text;
    for (const std::uint8_t byte : bytes)
        text += QString::asprintf("%02x ", byte);
    return text;
}

void logSyn(const ConnectionKey &key, const ParsedPacket &packet, const TcpSegment &syn)
{
    constexpr std::size_t smallestWithOptions = 41;
    if (!isDue(TcpNote::ClientSyn) || packet.rawLen < smallestWithOptions || syn.options.empty())
        return;
    const QString source = key.family == 4 ? formatIpv4(packet.srcIp) : ipv6Text(packet.srcIp6);
    const QString destination = key.family == 4 ? formatIpv4(packet.dstIp) : ipv6Text(packet.dstIp6);
    qCInfo(lcRuvod).nospace().noquote() << "[CLIENT-SYN] " << source << ":" << packet.srcPort << " -> " << destination
                                        << ":" << packet.dstPort
                                        << " MSS: " << readSynOptions(syn.options).maximumSegmentSize.value_or(0)
                                        << " Options: " << hexBytes(syn.options);
}

TcpSender::Opening openingOf(const ParsedPacket &packet, const TcpSegment &syn)
{
    TcpSender::Opening opening;
    if (packet.version == 4)
        opening.path = FlowKey{{packet.dstIp, packet.dstPort}, {packet.srcIp, packet.srcPort}};
    opening.initialSequence = QRandomGenerator::global()->bounded(initialSequences);
    opening.synSequence = syn.seq;
    opening.window = syn.window;
    opening.windowShift = readSynOptions(syn.options).windowShift.value_or(0);
    return opening;
}

} // namespace

TcpEngine::TcpEngine(EngineServices services, std::size_t connectionLimit)
    : m_services(std::move(services))
    , m_connectionLimit(connectionLimit)
    , m_drainEvent(CreateEventW(nullptr, FALSE, FALSE, nullptr))
{}

TcpEngine::~TcpEngine()
{
    close();
}

void TcpEngine::handleTcpPacket(const ParsedPacket &packet)
{
    const std::optional<TcpSegment> segment = readTcpSegment(packet);
    if (!segment)
        return;
    const ConnectionKey key = connectionKeyOf(packet, m_services.tunnelIp);
    const TcpConnectionPtr connection = find(m_connections, key);
    try {
        if (!connection) {
            handleClosing(key, *segment);
            if (isOpening(*segment))
                open(key, packet, *segment);
            return;
        }
        if (isOpening(*segment)) // sent again: the answer is on its way, or has been given
            return;
        takeNumbers(connection, *segment);
        if (segment->flags & tcpFin)
            handleFin(connection, *segment);
        else if (segment->flags & tcpRst)
            cleanupConnection(connection);
        else if (!segment->payload.empty())
            handleData(connection, *segment);
    } catch (const std::bad_alloc &) {
        if (connection)
            cleanupConnection(connection);
    }
}

TcpConnectionPtr TcpEngine::find(const Table &table, const ConnectionKey &key) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = table.find(key);
    return found == table.end() ? nullptr : found->second;
}

void TcpEngine::open(const ConnectionKey &key, const ParsedPacket &packet, const TcpSegment &syn)
{
    const auto connection = std::make_shared<TcpConnection>(key, openingOf(packet, syn), *this);
    if (!insert(connection))
        return;
    try {
        logSyn(key, packet, syn);
        connection->startUpstreamConnect();
    } catch (const std::bad_alloc &) {
        cleanupConnection(connection);
    }
}

bool TcpEngine::insert(const TcpConnectionPtr &connection)
{
    std::size_t total = 0;
    TcpConnectionPtr evicted;
    {
        const std::lock_guard lock(m_mutex);
        if (m_isClosed || m_connections.size() >= m_connectionLimit)
            return false;
        // Closing ones take their sockets and buffers as well. They make room for those that begin.
        if (m_connections.size() + m_closing.size() >= m_connectionLimit)
            evicted = longestClosing();
        m_connections.emplace(connection->key(), connection);
        total = m_connections.size();
    }
    if (evicted)
        cleanupConnection(evicted);
    qCDebug(lcRuvod) << "[TCP-CONN] Created new connection, total active:" << total;
    return true;
}

/// The one without progress for the longest time. Under the mutex, while there is one.
TcpConnectionPtr TcpEngine::longestClosing() const
{
    const auto longest = std::ranges::min_element(
        m_closing, {}, [](const Table::value_type &entry) { return entry.second->lastProgress(); });
    return longest->second;
}

/// False if the table holds another one of this key, or none: a successor is left alone.
bool TcpEngine::remove(const TcpConnectionPtr &connection, bool isClosing)
{
    std::size_t total = 0;
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_connections.find(connection->key());
        if (found == m_connections.end() || found->second != connection)
            return false;
        Table::node_type node = m_connections.extract(found);
        countOut(*connection);
        if (isClosing)
            m_closing.insert(std::move(node));
        total = m_connections.size();
    }
    qCDebug(lcRuvod) << "[TCP-CONN] Cleaned up connection, total active:" << total;
    return true;
}

void TcpEngine::onEstablished(const TcpConnectionPtr &connection)
{
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_connections.find(connection->key());
        connection->isCounted = found != m_connections.end() && found->second == connection;
        m_established += connection->isCounted ? 1 : 0;
    }
    watch(connection);
}

void TcpEngine::countOut(TcpConnection &connection)
{
    if (std::exchange(connection.isCounted, false))
        --m_established;
}

/// What still comes for a connection that has left the table.
void TcpEngine::handleClosing(const ConnectionKey &key, const TcpSegment &segment)
{
    const TcpConnectionPtr connection = find(m_closing, key);
    if (!connection)
        return;
    // A reset, or a new connection from the same port: the application knows nothing of the old one any more.
    if ((segment.flags & tcpRst) || isOpening(segment))
        return cleanupConnection(connection);
    takeNumbers(connection, segment);
}

void TcpEngine::takeNumbers(const TcpConnectionPtr &connection, const TcpSegment &segment)
{
    connection->noteHeard();
    const TcpSender::Acknowledged acknowledged = connection->stream().acknowledge(segment);
    // While nothing waits for it, an application could keep a closing connection for ever by moving its window. One
    // that is established needs no such look, which may have to wait for a worker that writes a whole chunk: with
    // several downloads the reader thread would fall behind.
    if (acknowledged != TcpSender::Acknowledged::Nothing && connection->stream().state() != TcpState::Established
        && connection->stream().hasWork()) {
        connection->noteProgress(m_services.clock());
    }
    // Once is enough until flow control looks again: setting an event for each acknowledgement of a download would
    // keep the reader thread from the packets that follow.
    if (acknowledged == TcpSender::Acknowledged::Room && !m_isDrainWanted.exchange(true))
        SetEvent(m_drainEvent.get());
}

void TcpEngine::handleFin(const TcpConnectionPtr &connection, const TcpSegment &segment)
{
    // First: one that was silent for long would look overdue as soon as it counts as closing.
    connection->noteProgress(m_services.clock());
    if (!connection->stream().finish(segment))
        return;
    beginClosing(connection);
    watch(connection);
    connection->endUpload();
}

void TcpEngine::handleData(const TcpConnectionPtr &connection, const TcpSegment &segment)
{
    using Verdict = TcpReceiver::Verdict;
    const std::optional<TcpStream::Received> received = connection->stream().receive(segment);
    if (!received)
        return;
    const std::uint16_t port = connection->port();
    switch (received->verdict) {
    case Verdict::Queued:
        if (isDue(TcpNote::UploadStarted)) {
            qCCritical(lcRuvod) << "[DATA-UPLOAD] Queuing"
                                << hexBytes(segment.payload.first(std::min<std::size_t>(16, segment.payload.size())));
        }
        noteDrained(*connection, received->drained);
        connection->postSend();
        acknowledge(connection);
        break;
    case Verdict::Refused:
        if (isDue(TcpNote::UploadRefused)) {
            qCWarning(lcRuvod) << "[UPLOAD BACKPRESSURE] Queue full - port:" << port
                               << "queueSize:" << received->queuedBytes;
        }
        break;
    case Verdict::Duplicate:
        if (isDue(TcpNote::OldDropped)) {
            qCWarning(lcRuvod) << "[DUP-DROP] Dropping duplicate/old packet - port:" << port
                               << "got_seq:" << segment.seq << "expected_seq:" << received->expected;
        }
        break;
    case Verdict::Kept:
        if (isDue(TcpNote::EarlyKept)) {
            qCWarning(lcRuvod) << "[OOO-BUFFERED] Buffering future packet - port:" << port
                               << "got_seq:" << segment.seq << "expected_seq:" << received->expected
                               << "diff:" << segment.seq - received->expected;
        }
        break;
    case Verdict::Dropped: break;
    }
}

void TcpEngine::noteDrained(const TcpConnection &connection, unsigned segments)
{
    for (unsigned i = 0; i < segments && isDue(TcpNote::EarlyQueued); ++i)
        qCWarning(lcRuvod) << "[OOO-PROCESSED] Processing buffered packet - port:" << connection.port();
}

void TcpEngine::acknowledge(const TcpConnectionPtr &connection)
{
    connection->stream().sendAck();
    watch(connection);
}

void TcpEngine::beginClosing(const TcpConnectionPtr &connection)
{
    if (remove(connection, true))
        endIfDone(connection);
}

void TcpEngine::endIfDone(const TcpConnectionPtr &connection)
{
    if (!connection->isDone())
        return;
    const std::lock_guard lock(m_mutex);
    const auto found = m_closing.find(connection->key());
    if (found != m_closing.end() && found->second == connection)
        m_closing.erase(found);
}

void TcpEngine::cleanupConnection(const TcpConnectionPtr &connection)
{
    connection->close(TcpConnection::Closing::Abortive);
    forget(connection);
    if (remove(connection, false))
        return;
    const std::lock_guard lock(m_mutex);
    const auto found = m_closing.find(connection->key());
    if (found != m_closing.end() && found->second == connection)
        m_closing.erase(found);
}

TcpEngine::Table TcpEngine::takeAll()
{
    Table taken;
    {
        const std::lock_guard lock(m_mutex);
        taken.swap(m_connections);
        taken.merge(m_closing);
        m_closing.clear();
        for (const auto &[key, connection] : taken)
            countOut(*connection);
    }
    for (const auto &[key, connection] : taken) {
        connection->stream().abandon();
        connection->close(TcpConnection::Closing::Abortive);
    }
    // New ones may stand there already.
    const std::lock_guard lock(m_waitingMutex);
    std::erase_if(m_waiting, [](const TcpConnectionPtr &connection) {
        return connection->stream().isAbandoned() && std::exchange(connection->isListed, false);
    });
    return taken;
}

void TcpEngine::close()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isClosed = true;
    }
    resetAll();
}

std::size_t TcpEngine::connections() const
{
    const std::lock_guard lock(m_mutex);
    return m_connections.size();
}

std::size_t TcpEngine::closingConnections() const
{
    const std::lock_guard lock(m_mutex);
    return m_closing.size();
}

} // namespace ruvo
