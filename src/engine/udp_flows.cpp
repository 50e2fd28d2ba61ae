#include "engine/udp_flows.h"

#include "common/dns_redirect.h"
#include "common/ipv4.h"
#include "engine/dns_answers.h"
#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "socks5/proxy_signs.h"

#include <QString>

#include <new>
#include <utility>

namespace ruvo {

UdpFlows::UdpFlows(const EngineServices &services, std::size_t flowLimit)
    : m_services(services)
    , m_flowLimit(flowLimit)
    , m_context{
          .completionPort = *services.completionPort,
          .proxyHost = services.proxyHost,
          .proxyAddress = parseIpv4(QString::fromStdWString(services.proxyHost)),
          .onReceived = [this](const UdpFlowPtr &flow, DWORD bytes, DWORD error) { onReceived(flow, bytes, error); },
          .onControlEnded = [this](const UdpFlowPtr &flow) { cleanupFlow(flow); }}
    , m_log(*services.completionPort)
{}

void UdpFlows::handleUdpPacket(const ParsedPacket &packet)
{
    if (!packet.payload || packet.dstPort == 0) // cut short within its header
        return;
    forward({.key = connectionKeyOf(packet, m_services.tunnelIp), .requestedIp = packet.dstIp},
            {packet.payload, packet.payloadLen});
}

void UdpFlows::forwardFallback(const FlowKey &flow, std::span<const std::uint8_t> payload)
{
    UdpFlowId id{.key = {}, .requestedIp = flow.destination.address};
    id.key.protocol = protocolUdp;
    id.key.sourceIp = flow.source.address;
    id.key.sourcePort = flow.source.port;
    id.key.destinationIp = realDestination(flow.destination, m_services.tunnelIp).address;
    id.key.destinationPort = flow.destination.port;
    forward(id, payload);
}

void UdpFlows::forward(const UdpFlowId &id, std::span<const std::uint8_t> payload)
{
    UdpFlowPtr made;
    try {
        if (const UdpFlowPtr known = findActive(id))
            return known->send(payload);
        made = makeFlow(id);
        const UdpFlowPtr flow = made ? insert(made) : nullptr;
        if (!flow)
            return;
        flow->send(payload);
        if (flow == made)
            made->open();
    } catch (const std::bad_alloc &) {
        // The datagram is lost; a flow that nobody opens must not wait in the table for its idle time.
        if (made)
            cleanupFlow(made);
    }
}

/// The flow if there is one, which is active by that.
UdpFlowPtr UdpFlows::findActive(const UdpFlowId &id)
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_flows.find(id);
    if (found == m_flows.end())
        return nullptr;
    touch(*found->second);
    return found->second;
}

UdpFlowPtr UdpFlows::makeFlow(const UdpFlowId &id)
{
    if (m_context.proxyAddress == 0) {
        m_log.invalidProxyAddress(QString::fromStdWString(m_context.proxyHost));
        return nullptr;
    }
    const ConnectionKey &key = id.key;
    const UpstreamDecision upstream = m_services.chooseUpstream(key.destinationIp, key.destinationPort);
    const auto flow = std::make_shared<UdpFlow>(id, upstream, m_context);
    PortExchangePlan plan{.peer = {m_context.proxyAddress, upstream.port},
                          .request = socks5::requestBytes(socks5::UdpAssociation()),
                          .key = CompletionKey::UdpFlow,
                          .noDelay = true,
                          .resetsWhenGivenUp = true,
                          .deadline = m_services.clock() + handshakeTimeout};
    flow->setExchange(std::make_shared<PortExchange>(
        *m_services.completionPort, std::move(plan),
        [this, flow](PortExchange::Outcome outcome) { onControlCompleted(flow, std::move(outcome)); }));
    return flow;
}

UdpFlowPtr UdpFlows::insert(const UdpFlowPtr &flow)
{
    UdpFlowPtr placed;
    UdpFlowPtr evicted;
    std::list<UdpFlowPtr> place{flow};
    {
        const std::lock_guard lock(m_mutex);
        if (!m_closed) {
            const auto [entry, isNew] = m_flows.try_emplace(flow->id(), flow);
            placed = entry->second;
            if (isNew) {
                flow->lastActivity = m_services.clock();
                flow->position = place.begin();
                m_byActivity.splice(m_byActivity.end(), place);
                if (m_flows.size() > m_flowLimit) {
                    evicted = m_byActivity.front();
                    forget(*evicted);
                }
            }
        }
    }
    if (evicted)
        evicted->close();
    if (placed != flow)
        flow->close(); // its exchange refers to it
    return placed;
}

/// False if it is not the flow in the table any more.
bool UdpFlows::touch(UdpFlow &flow)
{
    const auto found = m_flows.find(flow.id());
    if (found == m_flows.end() || found->second.get() != &flow)
        return false;
    flow.lastActivity = m_services.clock();
    m_byActivity.splice(m_byActivity.end(), m_byActivity, flow.position);
    return true;
}

void UdpFlows::forget(const UdpFlow &flow)
{
    const UdpFlowId id = flow.id(); // the table's reference may be the last one
    m_byActivity.erase(flow.position);
    m_flows.erase(id);
}

void UdpFlows::onControlCompleted(const UdpFlowPtr &flow, PortExchange::Outcome outcome)
{
    tell(m_services.proxyWitness, flow->upstreamPort(), proxySightingOf(outcome));
    if (!outcome) {
        m_log.exchangeFailed(outcome.error());
        return cleanupFlow(flow);
    }
    std::optional<UdpFlow::SetupFailure> failure;
    try {
        failure = flow->establish(std::move(*outcome));
    } catch (const std::bad_alloc &) {
        failure = UdpFlow::SetupFailure{.step = UdpFlow::SetupFailure::Step::RelaySocket};
    }
    if (failure) {
        m_log.setupFailed(*failure);
        cleanupFlow(flow);
    }
}

void UdpFlows::onReceived(const UdpFlowPtr &flow, DWORD bytes, DWORD error)
{
    // A relay that cannot be reached any more is the end of the association, whether its proxy sees it or not.
    if (error == NO_ERROR)
        onDatagramReceived(flow, bytes);
    else
        cleanupFlow(flow);
}

void UdpFlows::onDatagramReceived(const UdpFlowPtr &flow, std::size_t bytes)
{
    const std::optional<RelayedDatagram> datagram = readRelayedDatagram(flow->received(bytes));
    if (datagram && !datagram->payload.empty()) {
        {
            const std::lock_guard lock(m_mutex);
            if (!touch(*flow))
                return;
        }
        try {
            if (datagram->mayHoldNames())
                learnNames(*datagram);
            answer(*flow, datagram->payload);
        } catch (const std::bad_alloc &) {
            // Lost, as datagrams are.
        }
    }
    postUdpRecv(flow);
}

void UdpFlows::learnNames(const RelayedDatagram &datagram)
{
    for (const DnsAnswer &learnt : parseDnsAnswers(datagram.payload))
        m_services.learn(learnt);
}

/// To the application, from where it thinks it sent to. There is no way to inject IPv6.
void UdpFlows::answer(const UdpFlow &flow, std::span<const std::uint8_t> payload)
{
    const ConnectionKey &key = flow.id().key;
    if (key.family != 4)
        return;
    const PacketBytes packet = buildUdpPacket(flow.id().requestedIp, key.destinationPort, key.sourceIp,
                                              key.sourcePort, payload.data(), payload.size());
    if (!packet.empty())
        m_services.send(packet.data(), packet.size());
}

void UdpFlows::postUdpRecv(const UdpFlowPtr &flow)
{
    using State = UdpFlow::Posted::State;
    if (!flow)
        return m_log.noFlow();
    const UdpFlow::Posted posted = flow->postReceive();
    switch (posted.state) {
    case State::InFlight:
    case State::Closed: break;
    case State::NotReady: m_log.noSocket(flow->id().key.sourcePort); break;
    case State::AlreadyPending: m_log.alreadyPending(*flow, posted.socket); break;
    case State::Failed:
        m_log.receiveFailed(posted.error, posted.socket);
        cleanupFlow(flow);
        break;
    }
}

void UdpFlows::cleanupFlow(const UdpFlowPtr &flow)
{
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_flows.find(flow->id());
        if (found != m_flows.end() && found->second == flow)
            forget(*flow);
    }
    flow->close();
}

void UdpFlows::sweepIdle()
{
    std::list<UdpFlowPtr> idle;
    {
        const std::lock_guard lock(m_mutex);
        if (m_byActivity.empty())
            return;
        const SteadyTime now = m_services.clock();
        while (!m_byActivity.empty() && now - m_byActivity.front()->lastActivity >= idleTime) {
            m_flows.erase(m_byActivity.front()->id());
            idle.splice(idle.end(), m_byActivity, m_byActivity.begin());
        }
    }
    for (const UdpFlowPtr &flow : idle)
        flow->close();
}

void UdpFlows::expireHandshakes()
{
    std::vector<UdpFlowPtr> known;
    try {
        known = flows();
    } catch (const std::bad_alloc &) {
        return; // the next second sees to them
    }
    const SteadyTime now = m_services.clock();
    for (const UdpFlowPtr &flow : known)
        flow->expireIfOverdue(now);
}

std::list<UdpFlowPtr> UdpFlows::takeAll()
{
    std::list<UdpFlowPtr> taken;
    {
        const std::lock_guard lock(m_mutex);
        m_flows.clear();
        taken.swap(m_byActivity);
    }
    for (const UdpFlowPtr &flow : taken)
        flow->cancel();
    return taken;
}

void UdpFlows::closeAll()
{
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
    }
    for (const UdpFlowPtr &flow : takeAll())
        flow->close();
}

std::size_t UdpFlows::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_flows.size();
}

std::vector<UdpFlowPtr> UdpFlows::flows() const
{
    const std::lock_guard lock(m_mutex);
    return {m_byActivity.begin(), m_byActivity.end()};
}

} // namespace ruvo
