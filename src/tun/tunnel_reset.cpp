// The connection reset: what the engine holds goes, and the gate stays shut until the proxy has had time to come up.

#include "tun/tunnel.h"

#include "common/log_category.h"
#include "netcfg/resolver_cache.h"

#include <exception>

namespace ruvo {

namespace {

/// For the cancelled completions to go through the workers.
constexpr DWORD drainTime = 100; // ms

} // namespace

void Tunnel::resetConnections()
{
    if (!m_running)
        return;
    const ProxyGate::Closing closing = m_proxyGate.close();
    m_proxyHealth->noteReset(steadyNow());
    dropConnections();
    flushDnsCache();
    logInterfaceState();
    qCDebug(lcRuvod) << "Connection reset complete - starting proxy health check";
    checkFilters();
    joinProxyReadyThread(); // of an earlier reset: the gate was shut again, so it waits no longer
    startProxyReadyThread(closing);
}

void Tunnel::dropConnections()
{
    {
        TcpEngine::Table connections = m_tcpEngine->takeAll();
        const std::list<UdpFlowPtr> flows = m_udpFlows->takeAll();
        Sleep(drainTime);
        connections.clear(); // closes their sockets
        for (const UdpFlowPtr &flow : flows)
            flow->close();
    }
    // What came past the gate while it was being shut.
    m_tcpEngine->resetAll();
    for (const UdpFlowPtr &flow : m_udpFlows->takeAll())
        flow->close();
}

void Tunnel::logInterfaceState() const
{
    if (!m_adapter)
        return;
    if (const auto state = m_adapter->interfaceState()) {
        qCWarning(lcRuvod) << "[RESET] Interface metric:" << state->metric
                           << "AutoMetric:" << state->isMetricAutomatic << "Forwarding:" << state->isForwarding;
    } else {
        qCWarning(lcRuvod) << "[RESET] Failed to get interface entry";
    }
}

/// Logged as critical, so that it stands out among everything else.
void Tunnel::checkFilters() const
{
    if (!m_firewall) {
        qCCritical(lcRuvod) << "[RESET] ❌ m_firewall is NULL! This must never occur: nothing keeps DNS and IPv6 from"
                               " leaving around the tunnel.";
        return;
    }
    qCCritical(lcRuvod) << "[RESET] 🔍 Checking if WFP filters survived connection reset...";
    m_firewall->verifyFilters();
}

/// A tunnel whose gate stayed shut would be dead: without a thread, flow control opens it.
void Tunnel::startProxyReadyThread(ProxyGate::Closing closing)
{
    try {
        m_proxyReadyThread = std::thread(&Tunnel::runProxyReady, this, closing);
    } catch (const std::exception &error) {
        qCWarning(lcRuvod) << "[RESET] No thread to wait for the proxy:" << error.what();
        m_proxyGate.planOpening(closing);
    }
}

void Tunnel::runProxyReady(ProxyGate::Closing closing)
{
    qCDebug(lcRuvod) << "[RESET] Waiting 1000ms for xray to initialize...";
    if (m_proxyGate.openAfterDelay(closing))
        announceProxyReady();
}

void Tunnel::announceProxyReady()
{
    qCDebug(lcRuvod) << "[RESET] Proxy marked ready after 1000ms initialization delay";
    m_proxyHealth->noteReady(steadyNow());
}

/// Whoever calls it has shut or opened the gate before, which ends the thread's wait.
void Tunnel::joinProxyReadyThread()
{
    if (m_proxyReadyThread.joinable())
        m_proxyReadyThread.join();
}

} // namespace ruvo
