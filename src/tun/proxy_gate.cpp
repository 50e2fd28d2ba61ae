#include "tun/proxy_gate.h"

#include <algorithm>
#include <utility>

namespace ruvo {

ProxyGate::ProxyGate(SteadyClock clock, std::chrono::milliseconds longestWait)
    : m_clock(std::move(clock)), m_longestWait(longestWait)
{}

ProxyGate::Closing ProxyGate::close()
{
    const std::lock_guard lock(m_mutex);
    m_isOpen = false;
    m_plannedFor.reset();
    m_changed.notify_all();
    return ++m_closing;
}

void ProxyGate::open()
{
    const std::lock_guard lock(m_mutex);
    m_isOpen = true;
    m_plannedFor.reset();
    m_changed.notify_all();
}

bool ProxyGate::openAfterDelay(Closing closing)
{
    std::unique_lock lock(m_mutex);
    const SteadyTime due = dueTime();
    while (isLast(closing)) {
        const SteadyTime now = m_clock();
        if (now >= due) {
            m_isOpen = true;
            return true;
        }
        m_changed.wait_for(lock, std::min<SteadyTime::duration>(due - now, m_longestWait));
    }
    return false;
}

void ProxyGate::planOpening(Closing closing)
{
    const std::lock_guard lock(m_mutex);
    if (isLast(closing))
        m_plannedFor = dueTime();
}

bool ProxyGate::openIfDue()
{
    if (m_isOpen) // which it is for all but a second
        return false;
    const std::lock_guard lock(m_mutex);
    if (!m_plannedFor || m_clock() < *m_plannedFor)
        return false;
    m_plannedFor.reset();
    m_isOpen = true;
    return true;
}

/// Never beyond what the clock can show.
SteadyTime ProxyGate::dueTime() const
{
    const SteadyTime now = m_clock();
    return now > SteadyTime::max() - delay ? SteadyTime::max() : now + delay;
}

} // namespace ruvo
