#include "engine/tcp_stream.h"

#include "packet/packet_headers.h"

#include <utility>

namespace ruvo {

TcpStream::TcpStream(const TcpSender::Opening &opening, OutOfOrderBudget &budget, TcpSender::Write write)
    : m_write(std::move(write))
    , m_opening(opening)
    , m_acknowledgement(opening.synSequence + 1)
    , m_receiver(opening.synSequence + 1, budget)
    , m_sender(opening, m_acknowledgement, m_write)
{}

bool TcpStream::establish()
{
    const std::lock_guard lock(m_mutex);
    if (m_state >= TcpState::Established)
        return false;
    // Before the SYN is answered: the first bytes may come before this returns. Whoever takes them waits for the
    // lock, so that no answer to them overtakes that to the SYN.
    m_state = TcpState::Established;
    send(tcpSyn | tcpAck, {});
    return true;
}

void TcpStream::refuse()
{
    if (!m_opening.path)
        return;
    const auto &[from, to] = *m_opening.path;
    const PacketBytes packet = buildTcpPacket(from.address, from.port, to.address, to.port, 0,
                                              m_opening.synSequence + 1, tcpRst | tcpAck, nullptr, 0);
    const std::lock_guard lock(m_pendingMutex);
    m_write(packet.data(), packet.size());
}

TcpSender::Acknowledged TcpStream::acknowledge(const TcpSegment &segment)
{
    // A worker writes a whole chunk under this lock. A reader thread that waited for it with each acknowledgement of
    // several downloads would fall behind, until the adapter drops what comes.
    const std::unique_lock lock(m_pendingMutex, std::try_to_lock);
    if (lock) {
        takeLeftNumbers();
        return m_sender.acknowledge(segment);
    }
    const std::lock_guard left(m_leftMutex);
    if (!m_left || static_cast<std::int32_t>(segment.ack - m_left->ack) >= 0) {
        m_left = segment;
        m_left->options = {};
        m_left->payload = {};
        m_isLeft = true;
    }
    return m_packetsWait ? TcpSender::Acknowledged::Room : TcpSender::Acknowledged::Progress;
}

/// Under the pending mutex.
void TcpStream::takeLeftNumbers()
{
    if (!m_isLeft)
        return;
    const std::lock_guard left(m_leftMutex);
    m_sender.acknowledge(*m_left);
    m_left.reset();
    m_isLeft = false;
}

std::optional<TcpStream::Received> TcpStream::receive(const TcpSegment &segment)
{
    const std::lock_guard lock(m_mutex);
    if (m_state != TcpState::Established)
        return std::nullopt;
    const std::uint32_t expected = m_receiver.next();
    const TcpReceiver::Outcome outcome = m_receiver.receive(segment.seq, segment.payload);
    m_acknowledgement = m_receiver.next();
    return Received{outcome, expected, m_receiver.queuedBytes()};
}

bool TcpStream::finish(const TcpSegment &segment)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_state > TcpState::Established || (m_state != TcpState::Established && !segment.payload.empty())
            || !m_receiver.finish(segment.seq, segment.payload)) {
            return false;
        }
        m_acknowledgement = m_receiver.next();
        m_state = TcpState::ClosedByApplication;
    }
    const std::lock_guard lock(m_pendingMutex);
    m_sender.send(tcpFin | tcpAck, {});
    // Where our FIN has to wait, the application's is acknowledged by itself, or it would come again and again.
    if (m_sender.waiting() > 0)
        m_sender.send(tcpAck, {});
    return true;
}

std::optional<TcpStream::Chunk> TcpStream::beginUpload()
{
    const std::lock_guard lock(m_mutex);
    if (m_isUploading || m_receiver.queuedBytes() == 0)
        return std::nullopt;
    Chunk chunk;
    m_chunk = m_receiver.takeQueued(chunk.drained);
    m_chunkSent = 0;
    m_isUploading = true;
    m_acknowledgement = m_receiver.next();
    chunk.bytes = m_chunk;
    return chunk;
}

std::span<const std::uint8_t> TcpStream::advanceUpload(std::size_t bytes)
{
    const std::lock_guard lock(m_mutex);
    m_chunkSent += bytes;
    if (m_chunkSent < m_chunk.size())
        return std::span(m_chunk).subspan(m_chunkSent);
    m_isUploading = false;
    m_chunk = {};
    return {};
}

void TcpStream::abandonUpload()
{
    const std::lock_guard lock(m_mutex);
    m_isUploading = false;
    m_chunk = {};
}

std::size_t TcpStream::queuedBytes() const
{
    const std::lock_guard lock(m_mutex);
    return m_receiver.queuedBytes();
}

bool TcpStream::isUploadIdle() const
{
    const std::lock_guard lock(m_mutex);
    return m_receiver.queuedBytes() == 0 && !m_isUploading;
}

TcpStream::Downloaded TcpStream::download(std::span<const std::uint8_t> bytes)
{
    const std::lock_guard lock(m_pendingMutex);
    // The state changes before the FIN is sent: what comes now would be numbered behind it.
    if (m_isAbandoned || m_state != TcpState::Established)
        return {};
    takeLeftNumbers();
    const bool isKept = m_sender.send(tcpPsh | tcpAck, bytes);
    m_packetsWait = m_sender.waiting() > 0;
    return {isKept, m_sender.pauseIfFull()};
}

bool TcpStream::finishDownload()
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_state != TcpState::Established)
            return false;
        m_state = TcpState::ClosedByUpstream;
    }
    send(tcpFin | tcpAck, {});
    return true;
}

bool TcpStream::send(std::uint8_t flags, std::span<const std::uint8_t> payload)
{
    const std::lock_guard lock(m_pendingMutex);
    takeLeftNumbers();
    const bool isKept = m_isAbandoned || m_sender.send(flags, payload);
    m_packetsWait = m_sender.waiting() > 0;
    return isKept;
}

TcpSender::Drained TcpStream::drain(SteadyTime now)
{
    const std::lock_guard lock(m_pendingMutex);
    if (m_isAbandoned)
        return {};
    takeLeftNumbers();
    const TcpSender::Drained drained = m_sender.drain(now);
    m_packetsWait = m_sender.waiting() > 0;
    return drained;
}

bool TcpStream::endPause()
{
    const std::lock_guard lock(m_pendingMutex);
    return m_sender.endPause();
}

void TcpStream::abandon()
{
    const std::lock_guard lock(m_pendingMutex);
    m_isAbandoned = true;
}

bool TcpStream::isAbandoned() const
{
    const std::lock_guard lock(m_pendingMutex);
    return m_isAbandoned;
}

bool TcpStream::hasWork() const
{
    const std::lock_guard lock(m_pendingMutex);
    return !m_isAbandoned && m_sender.hasWork();
}

std::size_t TcpStream::waitingPackets() const
{
    const std::lock_guard lock(m_pendingMutex);
    return m_sender.waiting();
}

} // namespace ruvo
