#include "nat/relay_table.h"

#include "common/log_category.h"
#include "common/steady_clock.h"

#include <new>
#include <utility>
#include <vector>

namespace ruvo {

bool RelayTable::insert(const RelaySessionPtr &session)
{
    const std::lock_guard lock(m_mutex);
    if (!m_closed)
        m_sessions.emplace(session->id(), session);
    return !m_closed;
}

void RelayTable::remove(std::uint64_t id)
{
    RelaySessionPtr removed; // goes after the lock: it may be the last reference
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_sessions.find(id); found != m_sessions.end()) {
        removed = std::move(found->second);
        m_sessions.erase(found);
    }
}

void RelayTable::closeOverdue()
{
    std::vector<RelaySessionPtr> sessions;
    try {
        const std::lock_guard lock(m_mutex);
        sessions.reserve(m_sessions.size());
        for (const auto &[id, session] : m_sessions)
            sessions.push_back(session);
    } catch (const std::bad_alloc &) {
        return; // the next second sees to them
    }
    const SteadyTime now = steadyNow();
    for (const RelaySessionPtr &session : sessions)
        session->closeIfOverdue(now);
}

void RelayTable::closeAll()
{
    std::map<std::uint64_t, RelaySessionPtr> sessions;
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
        sessions.swap(m_sessions);
    }
    qCDebug(lcRuvod) << "[TCP-NAT] Closing" << sessions.size() << "relay sessions";
    for (const auto &[id, session] : sessions)
        session->abort();
}

std::size_t RelayTable::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_sessions.size();
}

} // namespace ruvo
