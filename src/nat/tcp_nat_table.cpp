#include "nat/tcp_nat_table.h"

#include <new>

namespace ruvo {

std::uint16_t TcpNatTable::allocateNatPort(const FlowKey &flow)
{
    const std::lock_guard lock(m_mutex);
    if (m_closed)
        return 0;
    const auto known = m_byClient.find(flow);
    // An ended connection is not opened again: its port still rewrites the segments that close it.
    if (known != m_byClient.end() && known->second->active)
        return known->second->natPort;

    const std::uint16_t natPort = takeFreePort();
    if (natPort == 0)
        return 0;
    const SteadyTime now = m_clock();
    const TcpNatSessionPtr session(new TcpNatSession{flow, natPort, now});
    m_opened.push_back({natPort, now});
    m_byClient.insert_or_assign(flow, session);
    // Last: without memory for the others the port stays free.
    m_byNatPort[natPort] = session;
    ++m_portsInUse;
    return natPort;
}

/// 0 if there is none. Never one in use: its packets would reach another connection.
std::uint16_t TcpNatTable::takeFreePort()
{
    if (m_portsInUse == portCount - 1) { // 0 is none
        while (!m_ended.empty()) {
            const TcpNatSessionPtr oldest = std::move(m_ended.front().session);
            m_ended.pop_front();
            if (m_byNatPort[oldest->natPort] == oldest) {
                erase(*oldest);
                return oldest->natPort;
            }
        }
        return 0;
    }
    while (m_nextNatPort == 0 || m_byNatPort[m_nextNatPort])
        ++m_nextNatPort;
    return m_nextNatPort++;
}

std::uint16_t TcpNatTable::findNatPort(const FlowKey &flow) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_byClient.find(flow);
    return found == m_byClient.end() ? 0 : found->second->natPort;
}

TcpNatSessionPtr TcpNatTable::findByClient(const Endpoint &client) const
{
    const std::lock_guard lock(m_mutex);
    TcpNatSessionPtr newest;
    for (auto at = m_byClient.lower_bound({client, {}}); at != m_byClient.end(); ++at) {
        if (at->first.source != client)
            break;
        if (!newest || at->second->created >= newest->created)
            newest = at->second;
    }
    return newest;
}

TcpNatSessionPtr TcpNatTable::findByNatPort(std::uint16_t natPort) const
{
    const std::lock_guard lock(m_mutex);
    return m_byNatPort[natPort];
}

TcpNatSessionPtr TcpNatTable::accept(std::uint16_t natPort)
{
    const std::lock_guard lock(m_mutex);
    TcpNatSessionPtr &session = m_byNatPort[natPort];
    if (!session)
        return nullptr;
    // A client may reset and open the same connection anew before the end of the old one has been seen here. It gets
    // a session of its own, or that end would take the new one's port away.
    if (session->accepted || !session->active)
        replace(session);
    session->accepted = true;
    return session;
}

void TcpNatTable::replace(TcpNatSessionPtr &session)
{
    const TcpNatSessionPtr old = session;
    session.reset(new TcpNatSession{old->flow, old->natPort, m_clock()});
    const auto byClient = m_byClient.find(old->flow);
    if (byClient != m_byClient.end() && byClient->second == old)
        byClient->second = session;
}

void TcpNatTable::end(const TcpNatSessionPtr &session)
{
    const std::lock_guard lock(m_mutex);
    if (!session->active.exchange(false) || m_byNatPort[session->natPort] != session)
        return;
    try {
        m_ended.push_back({session, m_clock()});
    } catch (const std::bad_alloc &) {
        erase(*session); // its port does not linger, but is not lost either
    }
}

void TcpNatTable::expire()
{
    const std::lock_guard lock(m_mutex);
    const SteadyTime now = m_clock();
    while (!m_ended.empty() && now - m_ended.front().time >= lingerTime) {
        erase(*m_ended.front().session);
        m_ended.pop_front();
    }
    while (!m_opened.empty()) {
        const Opened opened = m_opened.front();
        const TcpNatSessionPtr session = m_byNatPort[opened.natPort];
        const bool waits = session && session->created == opened.time && session->active && !session->accepted;
        if (waits && now - opened.time < acceptTime)
            break;
        m_opened.pop_front();
        if (waits) {
            session->active = false;
            erase(*session);
        }
    }
}

/// A later session may stand in its place, which stays.
void TcpNatTable::erase(const TcpNatSession &session)
{
    const auto byClient = m_byClient.find(session.flow);
    if (byClient != m_byClient.end() && byClient->second.get() == &session)
        m_byClient.erase(byClient);
    if (m_byNatPort[session.natPort].get() == &session) {
        m_byNatPort[session.natPort].reset();
        --m_portsInUse;
    }
}

void TcpNatTable::close()
{
    const std::lock_guard lock(m_mutex);
    m_closed = true;
    m_byClient.clear();
    m_byNatPort.assign(portCount, nullptr);
    m_portsInUse = 0;
    m_ended.clear();
    m_opened.clear();
}

std::size_t TcpNatTable::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_portsInUse;
}

} // namespace ruvo
