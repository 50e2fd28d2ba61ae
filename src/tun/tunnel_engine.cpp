// The user-space engine of the tunnel: what it is given, and what drives it.

#include "tun/tunnel.h"

#include <new>
#include <variant>

namespace ruvo {

namespace {

constexpr DWORD flowControlInterval = 10; // ms
constexpr auto housekeepingInterval = std::chrono::seconds(1);

} // namespace

void Tunnel::openEngine()
{
    m_engineServices = EngineServices{
        .proxyHost = m_settings.proxyHost,
        .tunnelIp = m_tunnelIp,
        .completionPort = &m_completionPort,
        // Nobody here knows which program of which machine a connection belongs to.
        .chooseUpstream = [this](std::uint32_t address, std::uint16_t port) { return decide({}, address, port); },
        .nameOf =
            [this](const ConnectionKey &key) {
                return key.family == 4 ? m_learnedNames.nameOf(key.destinationIp)
                                       : m_learnedNames.nameOf(key.destinationIp6);
            },
        .learn =
            [this](const DnsAnswer &answer) {
                std::visit(
                    [&](const auto &address) { m_learnedNames.learn(address, answer.name, answer.timeToLive); },
                    answer.address);
            },
        .trySend =
            [this](const std::uint8_t *packet, std::size_t size) {
                return m_adapter->trySendPacket(packet, static_cast<std::uint32_t>(size));
            },
        .send = [this](const std::uint8_t *packet,
                       std::size_t size) { m_adapter->sendPacket(packet, static_cast<std::uint32_t>(size)); },
        .proxyWitness = proxyWitness(),
    };
    m_tcpEngine = std::make_unique<TcpEngine>(m_engineServices);
    m_udpFlows = std::make_unique<UdpFlows>(m_engineServices);
    if (m_udpNatRelay) {
        m_udpNatRelay->setFallback([this](const FlowKey &flow, std::span<const std::uint8_t> payload) {
            if (m_running && m_proxyGate.isOpen())
                m_udpFlows->forwardFallback(flow, payload);
        });
    }
    m_housekeeping = {
        .sweepIdleFlows = [this] { m_udpFlows->sweepIdle(); },
        .logConnectionStates = [this] { m_tcpEngine->logConnectionStates(); },
    };
}

/// Writes what waits for the application, every few milliseconds, and at once when there is room for it.
void Tunnel::runFlowControl()
{
    const HANDLE wakings[] = {m_stopEvent.get(), m_tcpEngine->drainEvent()};
    const auto isRunning = [this] { return m_running.load(); };
    auto nextHousekeeping = steadyNow() + housekeepingInterval;
    while (m_running) {
        // Without the events, for want of memory, it looks just as often, and a stop is seen by the flag.
        if (WaitForMultipleObjects(std::size(wakings), wakings, FALSE, flowControlInterval) == WAIT_FAILED)
            Sleep(flowControlInterval);
        m_tcpEngine->drainWaiting(isRunning);
        if (m_proxyGate.openIfDue())
            announceProxyReady();
        const SteadyTime now = steadyNow();
        m_proxyCheck->poll(now);
        if (now < nextHousekeeping)
            continue;
        housekeeping();
        nextHousekeeping = steadyNow() + housekeepingInterval;
    }
}

/// Once a second: what nothing else would ever end.
void Tunnel::housekeeping()
try {
    m_natListener->ensureAccepting();
    m_natListener->table().expire();
    m_relayConnector->housekeeping();
    if (m_udpNatRelay)
        m_udpNatRelay->expireIdle();
    m_tcpEngine->housekeeping();
    m_udpFlows->expireHandshakes();
    m_learnedNames.expire();
} catch (const std::bad_alloc &) {
    // The next second sees to the rest.
}

} // namespace ruvo
