#include "tun/learned_names.h"

namespace ruvo {

void LearnedNames::learn(Ipv4Address address, const std::string &name, std::uint32_t timeToLive)
{
    const std::lock_guard lock(m_mutex);
    m_ipv4.learn(address, name, timeToLive, m_clock());
}

void LearnedNames::learn(const Ipv6Address &address, const std::string &name, std::uint32_t timeToLive)
{
    const std::lock_guard lock(m_mutex);
    m_ipv6.learn(address, name, timeToLive, m_clock());
}

std::string LearnedNames::nameOf(Ipv4Address address) const
{
    const std::lock_guard lock(m_mutex);
    return m_ipv4.nameOf(address, m_clock());
}

std::string LearnedNames::nameOf(const Ipv6Address &address) const
{
    const std::lock_guard lock(m_mutex);
    return m_ipv6.nameOf(address, m_clock());
}

void LearnedNames::expire()
{
    const std::lock_guard lock(m_mutex);
    const SteadyTime now = m_clock();
    m_ipv4.expire(now);
    m_ipv6.expire(now);
}

void LearnedNames::clear()
{
    const std::lock_guard lock(m_mutex);
    m_ipv4.clear();
    m_ipv6.clear();
}

std::size_t LearnedNames::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_ipv4.size() + m_ipv6.size();
}

} // namespace ruvo
