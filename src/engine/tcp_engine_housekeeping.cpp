// What nothing else would ever end, and the connections as the log counts them.

#include "engine/tcp_engine.h"

#include "common/log_category.h"

#include <array>
#include <new>
#include <vector>

namespace ruvo {

std::vector<TcpConnectionPtr> TcpEngine::all() const
{
    std::vector<TcpConnectionPtr> found;
    const std::lock_guard lock(m_mutex);
    found.reserve(m_connections.size() + m_closing.size());
    for (const Table *table : {&m_connections, &m_closing}) {
        for (const auto &[key, connection] : *table)
            found.push_back(connection);
    }
    return found;
}

void TcpEngine::housekeeping()
{
    std::vector<TcpConnectionPtr> connections;
    try {
        connections = all();
    } catch (const std::bad_alloc &) {
        return; // in a second it may be there
    }
    const SteadyTime now = m_services.clock();
    for (const TcpConnectionPtr &connection : connections) {
        connection->expireExchange(now);
        if (connection->isOverdue(now))
            cleanupConnection(connection);
        else
            endIfDone(connection);
    }
}

void TcpEngine::logConnectionStates()
{
    std::array<unsigned, 7> count{};
    std::size_t total = 0;
    {
        const std::lock_guard lock(m_mutex);
        total = m_connections.size();
        for (const auto &[key, connection] : m_connections) {
            if (const auto state = static_cast<std::size_t>(connection->state()); state < count.size())
                ++count[state];
        }
    }
    if (total == 0)
        return;
    qCDebug(lcRuvod) << "[TCP-DIAG] Total connections:" << total << "CONNECTING:" << count[1]
                     << "H_GREETING:" << count[2] << "H_AUTH:" << count[3] << "H_REQUEST:" << count[4]
                     << "H_RESPONSE:" << count[5] << "ESTABLISHED:" << count[6];
}

} // namespace ruvo
