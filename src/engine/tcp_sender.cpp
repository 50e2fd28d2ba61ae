#include "engine/tcp_sender.h"

#include "packet/packet_headers.h"
#include "packet/packet_stamp.h"

#include <algorithm>
#include <utility>

namespace ruvo {

namespace {

/// RFC 9293 section 3.4: how far `a` lies ahead of `b`, modulo 2^32.
std::int32_t distance(std::uint32_t a, std::uint32_t b)
{
    return static_cast<std::int32_t>(a - b);
}

/// The sequence numbers that a segment takes: its bytes, and one each for SYN and FIN.
std::uint32_t numbersOf(std::uint8_t flags, std::size_t payload)
{
    return static_cast<std::uint32_t>(payload) + ((flags & tcpSyn) ? 1 : 0) + ((flags & tcpFin) ? 1 : 0);
}

} // namespace

TcpSender::TcpSender(const Opening &opening, const std::atomic<std::uint32_t> &acknowledgement, const Write &write)
    : m_path(opening.path)
    , m_acknowledgement(acknowledgement)
    , m_write(write)
    , m_next(opening.initialSequence)
    , m_unacknowledged(opening.initialSequence)
    , m_window(opening.window)
    , m_windowShift(opening.windowShift)
    , m_windowSequence(opening.synSequence)
{}

PacketBytes TcpSender::build(std::uint8_t flags, std::span<const std::uint8_t> payload, std::uint32_t seq) const
{
    const Endpoint &from = m_path->source;
    const Endpoint &to = m_path->destination;
    return buildTcpPacket(from.address, from.port, to.address, to.port, seq, m_acknowledgement, flags, payload.data(),
                          payload.size());
}

bool TcpSender::send(std::uint8_t flags, std::span<const std::uint8_t> payload)
{
    const bool isAck = payload.empty() && flags == tcpAck;
    // A FIN is the last that has a number (RFC 9293 section 3.6). The upstream's last bytes may race with it.
    if (m_isFinished && !isAck)
        return true;
    m_isFinished = m_isFinished || (flags & tcpFin);
    if (!m_path) {
        m_next += numbersOf(flags, payload.size());
        return true;
    }
    Drained drained;
    Stopped stopped = writeWaiting(drained);
    if (isAck) {
        sendAck(stopped);
        return true;
    }
    if (payload.size() > maxSegment)
        flags = tcpPsh | tcpAck;
    bool isKept = true;
    do {
        const std::span<const std::uint8_t> segment = payload.first(std::min(payload.size(), maxSegment));
        payload = payload.subspan(segment.size());
        isKept = sendSegment(flags, segment, stopped) && isKept;
    } while (!payload.empty());
    return isKept;
}

bool TcpSender::sendSegment(std::uint8_t flags, std::span<const std::uint8_t> payload, Stopped &stopped)
{
    Waiting segment{build(flags, payload, m_next), static_cast<std::uint32_t>(payload.size()), flags};
    // Nothing overtakes what waits.
    if (stopped == Stopped::Nowhere && !fits(segment))
        stopped = Stopped::AtWindow;
    if (stopped == Stopped::Nowhere && !write(segment))
        stopped = Stopped::AtAdapter;
    return stopped == Stopped::Nowhere || keep(std::move(segment));
}

// A bare acknowledgement takes no room in the window, so it does not wait behind what does: an application that reads
// nothing while it sends would never get through otherwise. One that waits for the adapter stands for all later ones,
// as its number is read when it is written.
TcpSender::Stopped TcpSender::sendAck(Stopped stopped)
{
    m_ackWaits = stopped == Stopped::AtAdapter || !write({build(tcpAck, {}, m_next), 0, tcpAck});
    return m_ackWaits ? Stopped::AtAdapter : stopped;
}

bool TcpSender::write(const Waiting &segment)
{
    if (!m_write(segment.packet.data(), segment.packet.size()))
        return false;
    m_next += numbersOf(segment.flags, segment.payload);
    if (segment.flags & tcpSyn) // the window begins behind it
        m_unacknowledged = m_next;
    m_ackWaits = false; // every packet carries the number
    return true;
}

bool TcpSender::keep(Waiting segment)
{
    if (m_waiting.size() >= maxWaiting && !(segment.flags & tcpFin))
        return false;
    m_waiting.push_back(std::move(segment));
    return true;
}

/// What of the application's window is free.
std::uint32_t TcpSender::room() const
{
    const std::uint32_t inFlight = m_next - m_unacknowledged;
    return inFlight < m_window ? m_window - inFlight : 0;
}

bool TcpSender::fits(const Waiting &segment) const
{
    return (segment.flags & tcpSyn) || numbersOf(segment.flags, segment.payload) <= room();
}

TcpSender::Stopped TcpSender::writeWaiting(Drained &drained)
{
    while (!m_waiting.empty()) {
        Waiting &first = m_waiting.front();
        if (!fits(first))
            return Stopped::AtWindow;
        stampTcpNumbers(first.packet, m_next, m_acknowledgement);
        if (!write(first))
            return Stopped::AtAdapter;
        ++drained.packets;
        drained.bytes += first.payload;
        m_waiting.pop_front();
        m_heldUpSince.reset();
    }
    return Stopped::Nowhere;
}

TcpSender::Drained TcpSender::drain(SteadyTime now)
{
    Drained drained;
    Stopped stopped = writeWaiting(drained);
    if (stopped == Stopped::AtWindow)
        stopped = lookAfterWindow(now, drained);
    else
        m_heldUpSince.reset();
    if (m_ackWaits)
        stopped = sendAck(stopped);
    drained.isRefused = stopped == Stopped::AtAdapter;
    if (m_isPaused && m_waiting.size() < pauseAt) {
        m_isPaused = false;
        drained.resumes = true;
    }
    return drained;
}

// An application announces that its window has opened once, with a segment that carries nothing and that nobody
// repeats. So a window that stays closed is asked about (RFC 9293 section 3.8.6.1) with a segment of a number that
// the application has had already, which it must answer and which takes nothing. And a window that stays smaller than
// the segment that waits (section 3.8.6.2.1) gets as much of it as fits.
TcpSender::Stopped TcpSender::lookAfterWindow(SteadyTime now, Drained &drained)
{
    if (!m_heldUpSince)
        m_heldUpSince = now;
    if (now - *m_heldUpSince < windowPatience)
        return Stopped::AtWindow;
    if (room() > 0 && m_waiting.front().payload > room())
        return writeCut(drained);
    const PacketBytes probe = build(tcpAck, {}, m_next - 1);
    if (!m_write(probe.data(), probe.size()))
        return Stopped::AtAdapter;
    m_heldUpSince = now;
    return Stopped::AtWindow;
}

/// As much of the first packet as the window takes. The rest of it stays the first.
TcpSender::Stopped TcpSender::writeCut(Drained &drained)
{
    Waiting &first = m_waiting.front();
    const std::span<const std::uint8_t> payload =
        std::span(first.packet).subspan(first.packet.size() - first.payload);
    const std::uint32_t size = room();
    const Waiting cut{build(first.flags, payload.first(size), m_next), size, first.flags};
    Waiting rest{build(first.flags, payload.subspan(size), m_next), first.payload - size, first.flags};
    if (!write(cut))
        return Stopped::AtAdapter;
    drained.bytes += size;
    first = std::move(rest);
    m_heldUpSince.reset();
    return Stopped::AtWindow;
}

TcpSender::Acknowledged TcpSender::acknowledge(const TcpSegment &segment)
{
    if (!(segment.flags & tcpAck) || distance(segment.ack, m_unacknowledged) < 0
        || distance(segment.ack, m_next) > 0) {
        return Acknowledged::Nothing;
    }
    bool isNew = segment.ack != m_unacknowledged;
    m_unacknowledged = segment.ack;
    // An older segment that was overtaken must not bring its window back. One that acknowledges more is newer than
    // all before it, even if it was sent again and has an old number: its window counts from there, and the one
    // before would reach beyond what the application has room for.
    if (isNew || distance(segment.seq, m_windowSequence) >= 0) {
        const std::uint32_t window = std::uint32_t{segment.window} << m_windowShift;
        isNew = isNew || window != m_window;
        m_window = window;
        m_windowSequence = segment.seq;
    }
    if (!isNew)
        return Acknowledged::Nothing;
    m_heldUpSince.reset();
    if (m_waiting.empty() || !fits(m_waiting.front()))
        return Acknowledged::Progress;
    return Acknowledged::Room;
}

bool TcpSender::pauseIfFull()
{
    m_isPaused = m_isPaused || m_waiting.size() >= pauseAt;
    return m_isPaused;
}

} // namespace ruvo
