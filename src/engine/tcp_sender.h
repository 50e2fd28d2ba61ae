#pragma once

#include "common/endpoint.h"
#include "common/steady_clock.h"
#include "packet/packet_builder.h"
#include "packet/tcp_segment.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>

namespace ruvo {

/// The upstream's direction of a connection: numbers its bytes, cuts them into segments and writes these to the
/// adapter, as far as adapter and application have room; the rest waits here, in order. Nothing is ever sent twice:
/// the way to the application loses nothing. Not locked.
class TcpSender
{
public:
    /// Whatever the sizes that both sides announce.
    static constexpr std::size_t maxSegment = 1460;
    static constexpr std::size_t maxWaiting = 256;
    /// With so many waiting, no more is wanted from the upstream.
    static constexpr std::size_t pauseAt = 150;
    /// How long the application's window may stay closed, or too small, until something is done about it.
    static constexpr std::chrono::seconds windowPatience{1};

    /// Writes one packet to the adapter, without waiting. False if the adapter has no room.
    using Write = std::function<bool(const std::uint8_t *packet, std::size_t size)>;

    /// What the SYN says: the sending starts from it.
    struct Opening
    {
        /// From where the application believes to be answered, to the application. Nothing for IPv6: no packet can be
        /// built then, and all that is sent vanishes.
        std::optional<FlowKey> path;
        std::uint32_t initialSequence = 0; ///< of ours
        std::uint32_t synSequence = 0;     ///< of the application's SYN
        std::uint16_t window = 0;
        std::uint8_t windowShift = 0; ///< RFC 7323; 0 if the SYN does not scale
    };

    /// `acknowledgement` is the number that every packet carries, read when it is written. Both have to outlive this.
    TcpSender(const Opening &opening, const std::atomic<std::uint32_t> &acknowledgement, const Write &write);

    /// Sends what is waiting, then this: one packet with these flags, or, beyond one segment, several with PSH|ACK.
    /// What finds no room waits. False if something is lost, because too much waits already; a FIN never is. Behind a
    /// FIN there is only tcpAck: the rest is left out.
    bool send(std::uint8_t flags, std::span<const std::uint8_t> payload);

    enum class Acknowledged {
        Nothing,  ///< Nothing new.
        Progress, ///< Bytes were taken, or the window moved.
        Room,     ///< The same, and what waits can be written now.
    };
    /// Takes acknowledgement and window of a segment of the application (RFC 9293 section 3.10.7.4).
    Acknowledged acknowledge(const TcpSegment &segment);

    struct Drained
    {
        unsigned packets = 0;
        std::size_t bytes = 0; ///< of payload
        /// The adapter took no more.
        bool isRefused = false;
        /// Enough has gone out to want more from the upstream again; said once.
        bool resumes = false;
    };
    /// Writes what waits, as far as there is room, and looks after a window that stays closed. Every few
    /// milliseconds.
    Drained drain(SteadyTime now);

    /// No more is wanted from the upstream from now on, if as much waits as that.
    bool pauseIfFull();
    bool isPaused() const { return m_isPaused; }
    std::size_t waiting() const { return m_waiting.size(); }
    /// Whether `drain` has anything to do.
    bool hasWork() const { return m_isPaused || m_ackWaits || !m_waiting.empty(); }
    /// SND.NXT.
    std::uint32_t next() const { return m_next; }
    std::uint32_t window() const { return m_window; }

private:
    /// A packet that may have to wait. Its numbers are stamped once more when it is written then.
    struct Waiting
    {
        PacketBytes packet;
        std::uint32_t payload = 0;
        std::uint8_t flags = 0;
    };
    enum class Stopped { Nowhere, AtWindow, AtAdapter };

    PacketBytes build(std::uint8_t flags, std::span<const std::uint8_t> payload, std::uint32_t seq) const;
    bool fits(const Waiting &segment) const;
    std::uint32_t room() const;
    bool sendSegment(std::uint8_t flags, std::span<const std::uint8_t> payload, Stopped &stopped);
    Stopped sendAck(Stopped stopped);
    bool write(const Waiting &segment);
    bool keep(Waiting segment);
    Stopped writeWaiting(Drained &drained);
    Stopped lookAfterWindow(SteadyTime now, Drained &drained);
    Stopped writeCut(Drained &drained);

    const std::optional<FlowKey> m_path;
    const std::atomic<std::uint32_t> &m_acknowledgement;
    const Write &m_write;

    std::uint32_t m_next;           ///< SND.NXT
    std::uint32_t m_unacknowledged; ///< SND.UNA
    std::uint32_t m_window;         ///< SND.WND, scaled
    const std::uint8_t m_windowShift;
    std::uint32_t m_windowSequence; ///< SND.WL1; SND.WL2 is never ahead of what may still come

    std::deque<Waiting> m_waiting;
    bool m_ackWaits = false;
    bool m_isFinished = false;
    bool m_isPaused = false;
    /// Since when the window holds up what waits.
    std::optional<SteadyTime> m_heldUpSince;
};

} // namespace ruvo
