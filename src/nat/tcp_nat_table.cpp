#include "nat/tcp_nat_table.h"

namespace ruvo {

TcpNatTable::ClientKey TcpNatTable::keyOf(const TcpNatSession &session)
{
    return {session.clientAddress, session.clientPort, session.destinationAddress, session.destinationPort};
}

std::uint16_t TcpNatTable::allocateNatPort(std::uint32_t clientAddress, std::uint16_t clientPort,
                                           std::uint32_t destinationAddress, std::uint16_t destinationPort)
{
    const std::lock_guard lock(m_mutex);
    if (m_closed)
        return 0;
    const ClientKey key{clientAddress, clientPort, destinationAddress, destinationPort};
    const auto known = m_byClient.find(key);
    // An ended connection is not opened again: its port still rewrites the segments that close it.
    if (known != m_byClient.end() && known->second->active)
        return known->second->natPort;

    const std::uint16_t natPort = takeFreePort();
    if (natPort == 0)
        return 0;
    const std::int64_t now = m_clock();
    const TcpNatSessionPtr session(
        new TcpNatSession{clientAddress, clientPort, destinationAddress, destinationPort, natPort, now});
    m_byNatPort[natPort] = session;
    ++m_portsInUse;
    m_byClient.insert_or_assign(key, session);
    m_opened.push_back({natPort, now});
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

std::uint16_t TcpNatTable::findNatPort(std::uint32_t clientAddress, std::uint16_t clientPort,
                                       std::uint32_t destinationAddress, std::uint16_t destinationPort) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_byClient.find({clientAddress, clientPort, destinationAddress, destinationPort});
    return found == m_byClient.end() ? 0 : found->second->natPort;
}

TcpNatSessionPtr TcpNatTable::findByClient(std::uint32_t clientAddress, std::uint16_t clientPort) const
{
    const std::lock_guard lock(m_mutex);
    TcpNatSessionPtr newest;
    for (auto at = m_byClient.lower_bound({clientAddress, clientPort, 0, 0}); at != m_byClient.end(); ++at) {
        if (at->first.clientAddress != clientAddress || at->first.clientPort != clientPort)
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
    session.reset(new TcpNatSession{old->clientAddress, old->clientPort, old->destinationAddress,
                                    old->destinationPort, old->natPort, m_clock()});
    const auto byClient = m_byClient.find(keyOf(*old));
    if (byClient != m_byClient.end() && byClient->second == old)
        byClient->second = session;
}

void TcpNatTable::end(const TcpNatSessionPtr &session)
{
    const std::lock_guard lock(m_mutex);
    if (session->active.exchange(false) && m_byNatPort[session->natPort] == session)
        m_ended.push_back({session, m_clock()});
}

void TcpNatTable::expire()
{
    const std::lock_guard lock(m_mutex);
    const std::int64_t now = m_clock();
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
    const auto byClient = m_byClient.find(keyOf(session));
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
