#include "nat/udp_nat_relay.h"

#include "common/dns_redirect.h"
#include "common/log_category.h"
#include "packet/packet_builder.h"

#include <QString>

#include <new>
#include <optional>
#include <utility>

namespace ruvo {

bool UdpNatRelay::initialize(const Settings &settings, CompletionPort &completionPort, PacketOutput packetOutput)
{
    m_tunnelValue = settings.tunnelValue;
    const QString host = QString::fromStdString(settings.proxyHost);
    m_proxyHost = host.toStdWString();
    m_proxyPort = settings.proxyPort;
    m_directPort = settings.directPort;
    m_completionPort = &completionPort;
    m_packetOutput = std::move(packetOutput);
    m_initialized = true;
    qCDebug(lcRuvod).nospace().noquote() << "[UDP-NAT] Initialized with proxy " << host << ":" << m_proxyPort
                                         << " (proxy) / " << m_directPort << " (direct)";
    return true;
}

bool UdpNatRelay::forward(const FlowKey &flow, const Endpoint &target, std::span<const std::uint8_t> payload)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_initialized)
            return false;
        const auto found = m_flows.find(flow);
        if (found != m_flows.end() && found->second->isActive()) {
            if (!found->second->send(payload))
                return false;
            touch(*found->second);
            return true;
        }
        const bool isNew = m_waiting.add(flow, target, payload);
        if (!isNew || m_opening == maxOpeners)
            return true;
        ++m_opening;
    }
    if (!m_openers.post([this] { openWaiting(); })) {
        const std::lock_guard lock(m_mutex);
        --m_opening; // the next new flow tries again
    }
    return true;
}

bool UdpNatRelay::isStopping() const
{
    return WaitForSingleObject(m_stopEvent, 0) == WAIT_OBJECT_0;
}

/// On an opener's thread: one flow after another until none waits.
void UdpNatRelay::openWaiting()
{
    for (;;) {
        std::optional<UdpWaitingFlows::Opening> flow;
        {
            const std::lock_guard lock(m_mutex);
            if (m_initialized && !isStopping())
                flow = m_waiting.beginOpening();
            if (!flow) {
                --m_opening;
                return;
            }
        }
        open(*flow);
    }
}

void UdpNatRelay::open(const UdpWaitingFlows::Opening &flow)
{
    UdpNatSessionPtr session;
    bool isOurs = false;
    try {
        session = std::make_shared<UdpNatSession>(flow.key, flow.target,
                                                  flow.target.port == dnsPort ? m_directPort : m_proxyPort);
        const bool isOpen = session->open(m_proxyHost, m_stopEvent, *m_completionPort);
        tell(m_proxyWitness, session->socksPort(), session->proxySighting());
        if (!isOpen)
            return giveUp(flow);
        isOurs = insert(session);
    } catch (const std::bad_alloc &) {
        return giveUp(flow);
    }
    if (isOurs) {
        session->startReceiving(
            *m_completionPort,
            [this](UdpNatSession &answered, std::span<const std::uint8_t> payload) { onAnswer(answered, payload); });
    }
}

void UdpNatRelay::giveUp(const UdpWaitingFlows::Opening &flow)
{
    // The stop has failed it: shutdown drops what waits, and nobody is to open a flow for it elsewhere.
    if (isStopping())
        return;
    UdpWaitingFlows::Datagrams datagrams;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_initialized)
            return;
        datagrams = m_waiting.take(flow.key);
    }
    qCWarning(lcRuvod).nospace().noquote()
        << "[UDP-NAT] Failed to create SOCKS5 UDP session for " << formatEndpoint(flow.target);
    if (!m_fallback)
        return;
    for (const std::vector<std::uint8_t> &datagram : datagrams)
        m_fallback(flow.key, datagram);
}

/// Puts an open session into the maps and sends what waits for it. Nothing overtakes that: it happens under the
/// mutex.
bool UdpNatRelay::insert(const UdpNatSessionPtr &session)
{
    std::list<UdpNatSessionPtr> place{session};
    const std::lock_guard lock(m_mutex);
    if (!m_initialized)
        return false;
    if (const auto stale = m_flows.find(session->key()); stale != m_flows.end())
        remove(UdpNatSessionPtr(stale->second));
    if (m_flows.size() >= m_sessionLimit)
        remove(UdpNatSessionPtr(m_byActivity.front()));
    m_flows.emplace(session->key(), session);
    session->lastActivity = m_clock();
    session->position = place.begin();
    m_byActivity.splice(m_byActivity.end(), place);
    for (const std::vector<std::uint8_t> &datagram : m_waiting.take(session->key()))
        session->send(datagram);
    return true;
}

/// On a worker.
void UdpNatRelay::onAnswer(UdpNatSession &session, std::span<const std::uint8_t> payload)
{
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_flows.find(session.key());
        if (!m_initialized || found == m_flows.end() || found->second.get() != &session)
            return;
        touch(session);
    }
    const auto &[client, requested] = session.key();
    const PacketBytes packet = buildUdpPacket(requested.address, requested.port, client.address, client.port,
                                              payload.data(), payload.size());
    if (m_packetOutput && !packet.empty())
        m_packetOutput(packet.data(), packet.size());
}

void UdpNatRelay::touch(UdpNatSession &session)
{
    session.lastActivity = m_clock();
    m_byActivity.splice(m_byActivity.end(), m_byActivity, session.position);
}

void UdpNatRelay::remove(const UdpNatSessionPtr &session)
{
    session->close();
    forget(*session);
}

void UdpNatRelay::forget(const UdpNatSession &session)
{
    const FlowKey key = session.key();
    m_byActivity.erase(session.position);
    m_flows.erase(key);
}

void UdpNatRelay::expireIdle()
{
    // Closed after the lock: they may be thousands after a burst, and the reader thread sends under it.
    std::list<UdpNatSessionPtr> expired;
    {
        const std::lock_guard lock(m_mutex);
        const SteadyTime now = m_clock();
        while (!m_byActivity.empty() && now - m_byActivity.front()->lastActivity >= idleTime) {
            m_flows.erase(m_byActivity.front()->key());
            expired.splice(expired.end(), m_byActivity, m_byActivity.begin());
        }
    }
    for (const UdpNatSessionPtr &session : expired)
        session->close();
}

void UdpNatRelay::shutdown()
{
    if (!m_initialized.exchange(false))
        return;
    m_openers.stop();
    {
        const std::lock_guard lock(m_mutex);
        for (const UdpNatSessionPtr &session : m_byActivity)
            session->close();
        m_flows.clear();
        m_byActivity.clear();
        m_waiting.clear();
    }
    qCDebug(lcRuvod) << "[UDP-NAT] Shutdown complete";
}

std::size_t UdpNatRelay::sessions() const
{
    const std::lock_guard lock(m_mutex);
    return m_flows.size();
}

} // namespace ruvo
