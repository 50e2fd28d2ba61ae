#pragma once

#include <atomic>
#include <cstdint>

namespace ruvo {

/// Keeps a chatty diagnostic readable: of its occurrences only the first N are written, or the first N and every
/// M-th of all after them. From any thread.
///
///     static CappedLog s_refused(5, 50);
///     if (s_refused.take())
///         qCWarning(lcRuvod) << …;
///
/// The line is formatted inside the branch, so that one that is not written costs a look at the counter.
class CappedLog
{
public:
    /// The occurrences that are written: the first `first`, and with `every` not 0 also number `every`,
    /// 2 × `every` and so on, counted from the very first one.
    constexpr explicit CappedLog(std::uint64_t first, std::uint64_t every = 0) : m_first(first), m_every(every) {}

    /// Counts one occurrence; whether its line is to be written.
    bool take() noexcept
    {
        // A spent counter is only read: hot paths of several threads would otherwise pass its cache line around.
        if (m_every == 0 && m_count.load(std::memory_order_relaxed) >= m_first)
            return false;
        const std::uint64_t number = m_count.fetch_add(1, std::memory_order_relaxed) + 1;
        return number <= m_first || (m_every != 0 && number % m_every == 0);
    }

private:
    const std::uint64_t m_first;
    const std::uint64_t m_every;
    // 64 bits: the first lines do not come back after a wrap.
    std::atomic<std::uint64_t> m_count = 0;
};

} // namespace ruvo
