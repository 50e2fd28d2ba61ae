#include "tun/learned_names.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ruvo {

namespace {

constexpr std::int64_t second = 1'000'000'000; // ns

} // namespace

void LearnedNames::learn(std::uint32_t address, const std::string &name, std::uint32_t timeToLive)
{
    if (name.empty() || name.size() > maxNameLength)
        return;
    const std::lock_guard lock(m_mutex);
    if (const auto known = m_entries.find(address); known != m_entries.end())
        erase(known);
    else if (m_entries.size() == maxEntries)
        erase(m_entries.find(m_order.front()));
    m_order.push_back(address);
    const std::int64_t lifetime = std::clamp(timeToLive, minTimeToLive, maxTimeToLive) * second;
    m_entries.emplace(address, Entry{name, m_clock() + lifetime, std::prev(m_order.end())});
}

void LearnedNames::erase(Entries::iterator entry)
{
    m_order.erase(entry->second.position);
    m_entries.erase(entry);
}

std::string LearnedNames::nameOf(std::uint32_t address) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(address);
    if (found == m_entries.end() || found->second.expires <= m_clock())
        return {};
    return found->second.name;
}

void LearnedNames::expire()
{
    const std::lock_guard lock(m_mutex);
    const std::int64_t now = m_clock();
    for (auto entry = m_entries.begin(); entry != m_entries.end();) {
        const auto next = std::next(entry);
        if (entry->second.expires <= now)
            erase(entry);
        entry = next;
    }
}

void LearnedNames::clear()
{
    const std::lock_guard lock(m_mutex);
    m_entries.clear();
    m_order.clear();
}

std::size_t LearnedNames::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_entries.size();
}

} // namespace ruvo
