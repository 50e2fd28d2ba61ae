#include "engine/tcp_receiver.h"

#include <iterator>
#include <utility>

namespace ruvo {

namespace {

/// How far `seq` lies ahead of `expected`, as plain numbers.
std::int64_t distance(std::uint32_t seq, std::uint32_t expected)
{
    return std::int64_t{seq} - std::int64_t{expected};
}

} // namespace

bool OutOfOrderBudget::take(std::size_t bytes)
{
    if (m_used.fetch_add(bytes) + bytes <= limit)
        return true;
    m_used -= bytes;
    return false;
}

TcpReceiver::Outcome TcpReceiver::receive(std::uint32_t seq, std::span<const std::uint8_t> payload)
{
    if (m_isFinished)
        return {Verdict::Duplicate};
    const std::int64_t ahead = distance(seq, m_next);
    if (ahead < 0)
        return {Verdict::Duplicate};
    if (ahead > 0)
        return {keep(seq, payload) ? Verdict::Kept : Verdict::Dropped};
    // While bytes of its place wait for room, it would bring them a second time.
    if (isHeldUp() || !hasRoomFor(payload.size()))
        return {Verdict::Refused};
    append(payload);
    return {Verdict::Queued, drain()};
}

bool TcpReceiver::finish(std::uint32_t seq, std::span<const std::uint8_t> payload)
{
    if (m_isFinished || seq != m_next || isHeldUp() || !hasRoomFor(payload.size()))
        return false;
    append(payload);
    ++m_next; // the FIN's own number
    m_isFinished = true;
    return true;
}

std::vector<std::uint8_t> TcpReceiver::takeQueued(unsigned &drained)
{
    std::vector<std::uint8_t> taken = std::exchange(m_queue, {});
    drained = m_isFinished ? 0 : drain();
    return taken;
}

void TcpReceiver::append(std::span<const std::uint8_t> bytes)
{
    m_queue.insert(m_queue.end(), bytes.begin(), bytes.end());
    m_next += static_cast<std::uint32_t>(bytes.size());
}

/// A segment of the same number is replaced.
bool TcpReceiver::keep(std::uint32_t seq, std::span<const std::uint8_t> payload)
{
    if (!m_budget.take(payload.size()))
        return false;
    if (const auto known = m_kept.find(seq); known != m_kept.end())
        forget(known);
    m_kept.emplace(seq, std::vector<std::uint8_t>(payload.begin(), payload.end()));
    m_keptBytes += payload.size();
    return true;
}

void TcpReceiver::forget(Kept::iterator segment)
{
    m_keptBytes -= segment->second.size();
    m_budget.giveBack(segment->second.size());
    m_kept.erase(segment);
}

/// Whether all of it has been queued already: modulo 2^32, so that a wrap brings nothing old back.
bool TcpReceiver::liesBehind(const Kept::value_type &segment) const
{
    const std::uint32_t end = segment.first + static_cast<std::uint32_t>(segment.second.size());
    return static_cast<std::int32_t>(end - m_next) <= 0;
}

/// Queues the kept segments whose turn it is. One that begins before its turn is queued whole: overlapping bytes are
/// not trimmed.
unsigned TcpReceiver::drain()
{
    unsigned drained = 0;
    while (isHeldUp()) {
        const auto first = m_kept.begin();
        if (!liesBehind(*first)) {
            if (!hasRoomFor(first->second.size()))
                break;
            append(first->second);
            ++drained;
        }
        forget(first);
    }
    // Behind a wrap the old ones have the highest numbers.
    while (!m_kept.empty() && liesBehind(*std::prev(m_kept.end())))
        forget(std::prev(m_kept.end()));
    return drained;
}

} // namespace ruvo
