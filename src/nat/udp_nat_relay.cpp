#include "nat/udp_nat_relay.h"

#include "common/log_category.h"
#include "packet/packet_builder.h"

#include <QString>

#include <new>
#include <optional>
#include <utility>

namespace ruvo {

namespace {

/// Flows that are dropped without being asked about again, and for how long: each look-up reads whole tables of
/// Windows, and datagrams that go round come fast.
constexpr std::size_t maxDropped = 1024;
constexpr std::chrono::seconds dropTime{1};

} // namespace

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
    Lane *lane = nullptr;
    try {
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
        if (isDropped(flow))
            return true;
        lane = &laneToWaitIn(flow, target);
        // A known flow has somebody who opens it, unless no thread could be had when it came.
        const bool isNew = lane->waiting.add(flow, target, payload);
        if ((!isNew && lane->opening > 0) || !takeOpener(*lane))
            return true;
    } catch (const std::bad_alloc &) {
        return true;
    }
    startOpener(*lane);
    return true;
}

/// Under the mutex. A flow waits in one lane only: one that has been asked about is with its inbound.
UdpNatRelay::Lane &UdpNatRelay::laneToWaitIn(const FlowKey &flow, const Endpoint &target)
{
    Lane &inbound = inboundOf(target);
    const bool isTunnelDns = realDestination(flow.destination, m_tunnelValue) != flow.destination;
    const bool isAsked = m_questions.wayFor && !isTunnelDns && !inbound.waiting.contains(flow);
    return isAsked ? unaskedOf(target) : inbound;
}

/// Under the mutex.
bool UdpNatRelay::isDropped(const FlowKey &flow)
{
    const auto found = m_dropped.find(flow);
    if (found == m_dropped.end())
        return false;
    if (m_clock() < found->second)
        return true;
    m_dropped.erase(found);
    return false;
}

/// Under the mutex: whether another thread may open what waits. startOpener has to follow.
bool UdpNatRelay::takeOpener(Lane &lane)
{
    if (lane.opening == lane.maxOpeners)
        return false;
    ++lane.opening;
    return true;
}

void UdpNatRelay::startOpener(Lane &lane)
{
    bool isPosted = false;
    try {
        isPosted = lane.openers.post([this, &lane] { openWaiting(lane); });
    } catch (const std::bad_alloc &) {
        // As if there were no thread.
    }
    if (isPosted)
        return;
    const std::lock_guard lock(m_mutex);
    --lane.opening; // the next new flow tries again
}

bool UdpNatRelay::isStopping() const
{
    return WaitForSingleObject(m_stopEvent, 0) == WAIT_OBJECT_0;
}

/// On an opener's thread: one flow after another until none waits.
void UdpNatRelay::openWaiting(Lane &lane)
{
    for (;;) {
        std::optional<UdpWaitingFlows::Opening> flow;
        {
            const std::lock_guard lock(m_mutex);
            if (m_initialized && !isStopping())
                flow = lane.waiting.beginOpening();
            if (!flow) {
                --lane.opening;
                return;
            }
        }
        try {
            if (&lane == &m_unasked || &lane == &m_unaskedDns)
                ask(*flow);
            else
                open(*flow);
        } catch (const std::bad_alloc &) {
            takeWaiting(flow->key);
        }
    }
}

void UdpNatRelay::ask(const UdpWaitingFlows::Opening &flow)
{
    const UdpWay way = m_questions.wayFor(flow.key);
    if (way == UdpWay::Associate)
        return handOn(flow);
    if (way == UdpWay::Direct && openDirect(flow))
        return;
    // Not to the fallback: the proxy would send it through the tunnel again.
    takeWaiting(flow.key);
    const std::lock_guard lock(m_mutex);
    if (m_dropped.size() < maxDropped)
        m_dropped.insert_or_assign(flow.key, m_clock() + dropTime);
}

void UdpNatRelay::handOn(const UdpWaitingFlows::Opening &flow)
{
    Lane &inbound = inboundOf(flow.target);
    {
        const std::lock_guard lock(m_mutex);
        if (!inbound.waiting.takeOver(flow.key, flow.target, unaskedOf(flow.target).waiting.take(flow.key))
            || !takeOpener(inbound))
            return;
    }
    startOpener(inbound);
}

/// False: nothing may be sent, as it might come back through the tunnel.
bool UdpNatRelay::openDirect(const UdpWaitingFlows::Opening &flow)
{
    const std::uint32_t interfaceIndex = m_questions.physicalInterface();
    if (interfaceIndex == 0) {
        m_log.noPhysicalInterface(flow.target);
        return false;
    }
    const auto session = std::make_shared<UdpNatSession>(flow.key, flow.target, std::uint16_t{0}, m_log);
    if (!session->openDirect(interfaceIndex, *m_completionPort))
        return false;
    start(session);
    return true;
}

void UdpNatRelay::open(const UdpWaitingFlows::Opening &flow)
{
    UdpNatSessionPtr session;
    try {
        session = std::make_shared<UdpNatSession>(flow.key, flow.target,
                                                  flow.target.port == dnsPort ? m_directPort : m_proxyPort, m_log);
        const bool isOpen = session->open(m_proxyHost, m_stopEvent, *m_completionPort);
        tell(m_proxyWitness, session->socksPort(), session->proxySighting());
        if (isOpen)
            return start(session);
    } catch (const std::bad_alloc &) {
        session.reset();
    }
    giveUp(flow);
}

void UdpNatRelay::giveUp(const UdpWaitingFlows::Opening &flow)
{
    // The stop has failed it: shutdown drops what waits, and nobody is to open a flow for it elsewhere.
    if (isStopping() || !m_initialized)
        return;
    const UdpWaitingFlows::Datagrams datagrams = takeWaiting(flow.key);
    m_log.sessionFailed(flow.target);
    if (!m_fallback)
        return;
    for (const std::vector<std::uint8_t> &datagram : datagrams)
        m_fallback(flow.key, datagram);
}

UdpWaitingFlows::Datagrams UdpNatRelay::takeWaiting(const FlowKey &flow)
{
    const std::lock_guard lock(m_mutex);
    for (Lane *lane : lanes()) {
        if (lane->waiting.contains(flow))
            return lane->waiting.take(flow);
    }
    return {};
}

void UdpNatRelay::start(const UdpNatSessionPtr &session)
{
    if (insert(session)) {
        session->startReceiving(
            *m_completionPort,
            [this](UdpNatSession &answered, std::span<const std::uint8_t> payload) { onAnswer(answered, payload); });
    }
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
    std::list<UdpNatSessionPtr> &byActivity = inboundOf(session->target()).byActivity;
    if (byActivity.size() >= m_sessionLimit)
        remove(UdpNatSessionPtr(byActivity.front()));
    m_flows.emplace(session->key(), session);
    session->lastActivity = m_clock();
    session->position = place.begin();
    byActivity.splice(byActivity.end(), place);
    for (Lane *lane : lanes()) {
        for (const std::vector<std::uint8_t> &datagram : lane->waiting.take(session->key()))
            session->send(datagram);
    }
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
    try {
        const PacketBytes packet = buildUdpPacket(requested.address, requested.port, client.address, client.port,
                                                  payload.data(), payload.size());
        if (m_packetOutput && !packet.empty())
            m_packetOutput(packet.data(), packet.size());
    } catch (const std::bad_alloc &) {
        // The answer is lost.
    }
}

void UdpNatRelay::touch(UdpNatSession &session)
{
    std::list<UdpNatSessionPtr> &byActivity = inboundOf(session.target()).byActivity;
    session.lastActivity = m_clock();
    byActivity.splice(byActivity.end(), byActivity, session.position);
}

void UdpNatRelay::remove(const UdpNatSessionPtr &session)
{
    session->close();
    inboundOf(session->target()).byActivity.erase(session->position);
    m_flows.erase(session->key());
}

void UdpNatRelay::expireIdle()
{
    // Closed after the lock: they may be thousands after a burst, and the reader thread sends under it.
    std::list<UdpNatSessionPtr> expired;
    {
        const std::lock_guard lock(m_mutex);
        const SteadyTime now = m_clock();
        std::erase_if(m_dropped, [now](const auto &dropped) { return now >= dropped.second; });
        for (Lane *lane : lanes()) {
            std::list<UdpNatSessionPtr> &flows = lane->byActivity;
            while (!flows.empty() && now - flows.front()->lastActivity >= idleTime) {
                m_flows.erase(flows.front()->key());
                expired.splice(expired.end(), flows, flows.begin());
            }
        }
    }
    for (const UdpNatSessionPtr &session : expired)
        session->close();
}

void UdpNatRelay::shutdown()
{
    if (!m_initialized.exchange(false))
        return;
    for (Lane *lane : lanes())
        lane->openers.stop();
    {
        const std::lock_guard lock(m_mutex);
        for (const auto &[key, session] : m_flows)
            session->close();
        m_flows.clear();
        m_dropped.clear();
        for (Lane *lane : lanes()) {
            lane->byActivity.clear();
            lane->waiting.clear();
        }
    }
    qCDebug(lcRuvod) << "[UDP-NAT] Shutdown complete";
}

std::size_t UdpNatRelay::sessions() const
{
    const std::lock_guard lock(m_mutex);
    return m_flows.size();
}

} // namespace ruvo
