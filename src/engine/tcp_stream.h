#pragma once

#include "engine/tcp_receiver.h"
#include "engine/tcp_sender.h"
#include "packet/packet_headers.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace ruvo {

/// Where a connection stands. The application's SYN is answered with the step to Established.
enum class TcpState : int {
    Connecting = 1,          ///< to the proxy
    Greeting = 2,            ///< sent
    MethodReply = 3,         ///< awaited
    Request = 4,             ///< sent
    Response = 5,            ///< awaited
    Established = 6,         ///<
    ClosedByUpstream = 8,    ///<
    ClosedByApplication = 9, ///<
};

/// The TCP of one connection, as the application's peer: events in, packets and bytes for the upstream out. It owns
/// no socket, asks no clock and logs nothing.
///
/// From any thread. One mutex for what the application sends (sequence, what came early, what goes upstream), one for
/// what is sent to it (sequence, window, what waits); packets are written under the second, by a function that does
/// not wait. The second may be taken inside the first.
class TcpStream
{
public:
    /// `synSequence` is the number of the application's SYN. `write` is called under the stream's mutex.
    TcpStream(const TcpSender::Opening &opening, OutOfOrderBudget &budget, TcpSender::Write write);

    TcpState state() const { return m_state; }
    /// The proxy has connected: answers the SYN. False if the application has ended the connection meanwhile.
    bool establish();
    /// There is no way to the proxy: refuses the SYN (RFC 9293 section 3.5.2).
    void refuse();

    // What comes from the application.

    /// Takes the acknowledgement and the window of any segment. Does not wait for packets that are being written.
    TcpSender::Acknowledged acknowledge(const TcpSegment &segment);
    struct Received : TcpReceiver::Outcome
    {
        std::uint32_t expected = 0;
        std::size_t queuedBytes = 0;
    };
    /// A segment with payload. Nothing unless the connection is established. What is queued is to be sent upstream
    /// and acknowledged.
    std::optional<Received> receive(const TcpSegment &segment);
    /// Tells the application what has been received.
    void sendAck() { send(tcpAck, {}); }
    /// The application's FIN: answered, if it is its turn. What it sent still goes upstream.
    bool finish(const TcpSegment &segment);

    // Towards the upstream: one chunk at a time.

    struct Chunk
    {
        std::span<const std::uint8_t> bytes;
        /// Segments that found room with it, and are to be acknowledged.
        unsigned drained = 0;
    };
    /// What is queued, unless a chunk is on its way already. The bytes stay until it is done.
    std::optional<Chunk> beginUpload();
    /// So much of the chunk has gone out. What is left of it; empty when it is done.
    std::span<const std::uint8_t> advanceUpload(std::size_t bytes);
    void abandonUpload();
    /// What waits for the upstream, the chunk on its way not counted.
    std::size_t queuedBytes() const;
    /// Whether all that was acknowledged has gone out.
    bool isUploadIdle() const;

    // What comes from the upstream.

    struct Downloaded
    {
        /// False: some of it is lost.
        bool isKept = true;
        /// Nothing more is to be received until `drain` says so.
        bool isPaused = false;
    };
    Downloaded download(std::span<const std::uint8_t> bytes);
    /// The upstream has closed: tells the application. False if the connection has ended already.
    bool finishDownload();
    /// See TcpSender::drain.
    TcpSender::Drained drain(SteadyTime now);
    /// True if it was paused: `drain` will not say that it resumes, the caller goes on receiving instead.
    bool endPause();
    /// The application has gone, or a successor has its place: nothing that waits is written any more, and nothing
    /// new.
    void abandon();
    bool isAbandoned() const;
    /// Whether packets wait, or the upstream does.
    bool hasWork() const;
    std::size_t waitingPackets() const;

    /// Builds and writes packets to the application. False if some of it is lost.
    bool send(std::uint8_t flags, std::span<const std::uint8_t> payload);

private:
    const TcpSender::Write m_write;
    const TcpSender::Opening m_opening;
    std::atomic<TcpState> m_state = TcpState::Connecting;
    /// RCV.NXT, as every packet to the application says it.
    std::atomic<std::uint32_t> m_acknowledgement;

    mutable std::mutex m_mutex;
    TcpReceiver m_receiver;
    /// The chunk on its way upstream, and how much of it has gone out.
    std::vector<std::uint8_t> m_chunk;
    std::size_t m_chunkSent = 0;
    bool m_isUploading = false;

    void takeLeftNumbers();

    mutable std::mutex m_pendingMutex;
    TcpSender m_sender;
    bool m_isAbandoned = false;
    /// Whether packets wait, as the last one who had the lock left it.
    std::atomic<bool> m_packetsWait = false;

    /// Numbers of the application's that came while packets were being written, the newest: whoever has the lock next
    /// takes them. Taken inside any of the others, for a moment.
    std::mutex m_leftMutex;
    std::optional<TcpSegment> m_left;
    std::atomic<bool> m_isLeft = false;
};

} // namespace ruvo
