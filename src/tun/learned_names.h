#pragma once

#include "common/steady_clock.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ruvo {

/// The names that applications have looked up, by the IPv4 address (host order) that they got: the proxy is asked for
/// the name then, and resolves it where it is.
///
/// From any thread; one mutex. Bounded: an entry lasts as long as the DNS record that it came from, the oldest makes
/// room for a new one.
class LearnedNames
{
public:
    static constexpr std::size_t maxEntries = 65536;
    static constexpr std::size_t maxNameLength = 253; // RFC 1035 section 2.3.4, as text
    /// What a record's time to live is clamped to, in seconds.
    static constexpr std::uint32_t minTimeToLive = 60;
    static constexpr std::uint32_t maxTimeToLive = 86'400;

    using Clock = std::function<std::int64_t()>;

    explicit LearnedNames(Clock clock = steadyNanoseconds) : m_clock(std::move(clock)) {}

    /// An earlier name of the address is replaced. An empty name, or one that is too long, is none.
    void learn(std::uint32_t address, const std::string &name, std::uint32_t timeToLive);
    /// Empty if no name is known, or not any more.
    std::string nameOf(std::uint32_t address) const;
    /// Forgets what is out of date.
    void expire();
    void clear();
    std::size_t size() const;

private:
    struct Entry
    {
        std::string name;
        std::int64_t expires;
        std::list<std::uint32_t>::iterator position;
    };
    using Entries = std::unordered_map<std::uint32_t, Entry>;

    void erase(Entries::iterator entry);

    const Clock m_clock;
    mutable std::mutex m_mutex;
    Entries m_entries;
    /// The addresses, the longest known first.
    std::list<std::uint32_t> m_order;
};

} // namespace ruvo
