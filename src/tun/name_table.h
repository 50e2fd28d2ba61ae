#pragma once

#include "common/steady_clock.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <map>
#include <string>

namespace ruvo {

/// Names by address, each for a time. Bounded: the oldest makes room for a new one.
///
/// No lock: the owner's. Ordered, as hashes of addresses that DNS servers choose could be made to collide.
template<typename Address>
class NameTable
{
public:
    static constexpr std::size_t maxEntries = 65536;
    static constexpr std::size_t maxNameLength = 253; // RFC 1035 section 2.3.4, as text
    /// What a record's time to live is clamped to, in seconds.
    static constexpr std::uint32_t minTimeToLive = 60;
    static constexpr std::uint32_t maxTimeToLive = 86'400;

    /// An earlier name of the address is replaced. An empty name, or one that is too long, is none.
    void learn(const Address &address, const std::string &name, std::uint32_t timeToLive, SteadyTime now)
    {
        if (name.empty() || name.size() > maxNameLength)
            return;
        if (const auto known = m_entries.find(address); known != m_entries.end())
            erase(known);
        else if (m_entries.size() == maxEntries)
            erase(m_entries.find(m_order.front()));
        const std::chrono::seconds lifetime(std::clamp(timeToLive, minTimeToLive, maxTimeToLive));
        // Both or none: without memory for the entry, its place in the order would lead nowhere.
        std::list<Address> place{address};
        m_entries.emplace(address, Entry{name, now + lifetime, place.begin()});
        m_order.splice(m_order.end(), place);
    }

    /// Empty if no name is known, or not any more.
    std::string nameOf(const Address &address, SteadyTime now) const
    {
        const auto found = m_entries.find(address);
        if (found == m_entries.end() || found->second.expires <= now)
            return {};
        return found->second.name;
    }

    /// Forgets what is out of date.
    void expire(SteadyTime now)
    {
        for (auto entry = m_entries.begin(); entry != m_entries.end();) {
            const auto next = std::next(entry);
            if (entry->second.expires <= now)
                erase(entry);
            entry = next;
        }
    }

    void clear()
    {
        m_entries.clear();
        m_order.clear();
    }

    std::size_t size() const { return m_entries.size(); }

private:
    struct Entry
    {
        std::string name;
        SteadyTime expires;
        typename std::list<Address>::iterator position;
    };
    using Entries = std::map<Address, Entry>;

    void erase(typename Entries::iterator entry)
    {
        m_order.erase(entry->second.position);
        m_entries.erase(entry);
    }

    Entries m_entries;
    /// The addresses, the longest known first.
    std::list<Address> m_order;
};

} // namespace ruvo
