#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace ruvo {

/// How much all connections together may keep of what came ahead of its turn. From any thread.
class OutOfOrderBudget
{
public:
    static constexpr std::size_t limit = 256 * 1024 * 1024;
    /// What keeping one segment takes besides its bytes.
    static constexpr std::size_t perSegment = 128;

    /// False, and nothing is taken, if that would be more than the limit.
    bool take(std::size_t bytes);
    void giveBack(std::size_t bytes) { m_used -= bytes; }
    std::size_t used() const { return m_used; }

private:
    std::atomic<std::size_t> m_used = 0;
};

/// The application's direction of a connection: puts its segments into order and queues their bytes for the upstream.
/// Not locked.
///
/// Sequence numbers are compared as plain numbers, not modulo 2^32 (unlike RFC 9293 section 3.4): around a wrap, what
/// comes ahead of its turn counts as old, and the application sends it again.
class TcpReceiver
{
public:
    /// What may wait for the upstream. An application that sends more has to send it again later.
    static constexpr std::size_t maxQueued = 0x200000;

    /// `next` is RCV.NXT: the number behind the SYN's. `budget` has to outlive this.
    TcpReceiver(std::uint32_t next, OutOfOrderBudget &budget) : m_next(next), m_budget(budget) {}
    ~TcpReceiver() { m_budget.giveBack(m_keptCost); }
    TcpReceiver(const TcpReceiver &) = delete;
    TcpReceiver &operator=(const TcpReceiver &) = delete;

    enum class Verdict {
        Queued,    ///< In order. To be acknowledged.
        Refused,   ///< In order, but there is no room.
        Duplicate, ///< Below what is expected.
        Kept,      ///< Ahead of its turn.
        Dropped,   ///< Ahead of its turn, and there is no room for it.
    };
    struct Outcome
    {
        Verdict verdict = Verdict::Dropped;
        /// Segments that had come ahead of their turn and are queued now.
        unsigned drained = 0;
    };
    /// `payload` is not empty.
    Outcome receive(std::uint32_t seq, std::span<const std::uint8_t> payload);

    /// The application's FIN, with what its segment carries before it. False if it is not its turn, or if there is no
    /// room for the bytes: the application sends it again.
    bool finish(std::uint32_t seq, std::span<const std::uint8_t> payload);
    bool isFinished() const { return m_isFinished; }

    /// Takes what is queued, and queues what has waited only for room; `drained` gets how many segments.
    std::vector<std::uint8_t> takeQueued(unsigned &drained);

    /// RCV.NXT.
    std::uint32_t next() const { return m_next; }
    std::size_t queuedBytes() const { return m_queue.size(); }
    std::size_t keptSegments() const { return m_kept.size(); }

private:
    using Kept = std::map<std::uint32_t, std::vector<std::uint8_t>>;

    bool hasRoomFor(std::size_t bytes) const { return m_queue.size() + bytes <= maxQueued; }
    bool isHeldUp() const { return !m_kept.empty() && m_kept.begin()->first <= m_next; }
    bool liesBehind(const Kept::value_type &segment) const;
    void append(std::span<const std::uint8_t> bytes);
    bool keep(std::uint32_t seq, std::span<const std::uint8_t> payload);
    void forget(Kept::iterator segment);
    void giveBack(const std::vector<std::uint8_t> &bytes);
    unsigned drain();

    std::uint32_t m_next;
    bool m_isFinished = false;
    std::vector<std::uint8_t> m_queue;
    /// What came ahead of its turn, by its sequence number.
    Kept m_kept;
    std::size_t m_keptCost = 0; ///< taken of the budget
    OutOfOrderBudget &m_budget;
};

} // namespace ruvo
