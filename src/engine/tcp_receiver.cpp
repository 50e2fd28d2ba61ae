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

/// What a kept segment takes of the budget: its node counts, or segments of one byte would take gigabytes.
std::size_t costOf(const std::vector<std::uint8_t> &bytes)
{
    return bytes.size() + OutOfOrderBudget::perSegment;
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
    while (!m_kept.empty()) // nothing lies behind a FIN
        forget(m_kept.begin());
    return true;
}

std::vector<std::uint8_t> TcpReceiver::takeQueued(unsigned &drained)
{
    std::vector<std::uint8_t> taken = std::exchange(m_queue, {});
    drained = drain();
    return taken;
}

void TcpReceiver::append(std::span<const std::uint8_t> bytes)
{
    m_queue.insert(m_queue.end(), bytes.begin(), bytes.end());
    m_next += static_cast<std::uint32_t>(bytes.size());
}

/// A segment of the same number is replaced. What can fail for want of memory comes before the books are changed.
bool TcpReceiver::keep(std::uint32_t seq, std::span<const std::uint8_t> payload)
{
    std::vector<std::uint8_t> bytes(payload.begin(), payload.end());
    const auto [place, isNew] = m_kept.try_emplace(seq);
    if (!m_budget.take(costOf(bytes))) {
        if (isNew)
            m_kept.erase(place);
        return false;
    }
    if (!isNew)
        giveBack(place->second);
    m_keptCost += costOf(bytes);
    place->second = std::move(bytes);
    return true;
}

void TcpReceiver::forget(Kept::iterator segment)
{
    giveBack(segment->second);
    m_kept.erase(segment);
}

void TcpReceiver::giveBack(const std::vector<std::uint8_t> &bytes)
{
    m_keptCost -= costOf(bytes);
    m_budget.giveBack(costOf(bytes));
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
