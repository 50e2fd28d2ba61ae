#pragma once

#include "common/steady_clock.h"
#include "tun/name_table.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

namespace ruvo {

/// The names that applications have looked up, by the address that they got: the proxy is asked for the name then,
/// and resolves it where it is. IPv4 addresses in host order, IPv6 addresses as on the wire; each kind has a table of
/// its own.
///
/// From any thread; one mutex. Bounded: an entry lasts as long as the DNS record that it came from, the oldest of its
/// table makes room for a new one.
class LearnedNames
{
public:
    using Ipv4Address = std::uint32_t;
    using Ipv6Address = std::array<std::uint8_t, 16>;

    /// Of each table.
    static constexpr std::size_t maxEntries = NameTable<Ipv4Address>::maxEntries;

    explicit LearnedNames(SteadyClock clock = steadyNow) : m_clock(std::move(clock)) {}

    /// `timeToLive` in seconds, as the record has it. An earlier name of the address is replaced; an empty name, or
    /// one of more than 253 bytes, is none.
    void learn(Ipv4Address address, const std::string &name, std::uint32_t timeToLive);
    void learn(const Ipv6Address &address, const std::string &name, std::uint32_t timeToLive);
    /// Empty if no name is known, or not any more.
    std::string nameOf(Ipv4Address address) const;
    std::string nameOf(const Ipv6Address &address) const;
    /// Forgets what is out of date.
    void expire();
    void clear();
    /// Of both tables.
    std::size_t size() const;

private:
    const SteadyClock m_clock;
    mutable std::mutex m_mutex;
    NameTable<Ipv4Address> m_ipv4;
    NameTable<Ipv6Address> m_ipv6;
};

} // namespace ruvo
