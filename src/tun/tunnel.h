#pragma once

#include "common/windows_handles.h"
#include "engine/engine_services.h"
#include "engine/tcp_engine.h"
#include "engine/udp_flows.h"
#include "io/completion_port.h"
#include "nat/relay_connector.h"
#include "nat/tcp_nat_listener.h"
#include "nat/udp_nat_relay.h"
#include "netcfg/firewall_manager.h"
#include "netcfg/wintun_adapter.h"
#include "tun/learned_names.h"
#include "tun/packet_dispatcher.h"
#include "tun/proxy_check.h"
#include "tun/proxy_gate.h"
#include "tun/proxy_health.h"
#include "tun/tunnel_settings.h"
#include "tun/upstream_choice.h"
#include "tun/worker_housekeeping.h"

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ruvo {

/// The tunnel: its adapter, the completion port with its workers, and the threads around them.
///
/// start and stop belong to the service thread. Packets come on the adapter's reader thread, completions on the
/// workers; stop joins them all before it takes anything down. Addresses and ports in host order.
class Tunnel
{
public:
    explicit Tunnel(TunnelSettings settings = {});
    /// As stop(); also lets go of what a failed start left behind.
    ~Tunnel();
    Tunnel(const Tunnel &) = delete;
    Tunnel &operator=(const Tunnel &) = delete;

    // Before start: more of what the settings had.
    void addBypassIp(std::uint32_t address) { m_upstreamChoice.addBypassIp(address); }
    void addProxyProcess(const std::wstring &name) { m_upstreamChoice.addProxyProcess(name); }
    void addDirectProcess(const std::wstring &name) { m_upstreamChoice.addDirectProcess(name); }
    const std::set<std::uint32_t> &bypassIps() const { return m_upstreamChoice.bypassIps(); }
    /// Called, on any thread, when a check of the proxy's health fails.
    void setHealthCheckFailedCallback(std::function<void()> callback);

    /// Brings the whole data path up. Success at once if it runs already. A failure leaves what its earlier steps did
    /// until stop, the next start or destruction; the error is the text for the client.
    std::expected<void, std::string> start(const std::wstring &adapterName, std::uint32_t tunnelIp,
                                           std::uint8_t prefixLength, const std::wstring &wintunLibraryPath);
    /// Takes it down within 5 s, and as long again as another product makes changes to the filtering engine wait.
    /// Nothing if it does not run.
    void stop();
    /// False too when the adapter has died under it.
    bool isRunning() const;

    /// Throws away the connections and flows of the engine, so that applications make new ones through a proxy that
    /// has been restarted, and looks whether the host around the tunnel is still as it was made. Relays go on. For a
    /// second afterwards connections are refused and all else is dropped. Takes about 100 ms; nothing if the tunnel
    /// does not run. Service thread, as start and stop.
    void resetConnections();

    /// Which interface direct connections leave through; 0 if it is not known.
    void setPhysicalInterface(std::uint32_t interfaceIndex) { m_physicalInterface = interfaceIndex; }
    std::uint64_t adapterLuid() const { return m_adapter ? m_adapter->luid() : 0; }
    std::uint32_t adapterIndex() const { return m_adapter ? m_adapter->interfaceIndex() : 0; }

    void dispatchPacket(const std::uint8_t *data, std::size_t len);
    /// As UpstreamChoice::decide; from any thread.
    UpstreamDecision decide(const std::wstring &processPath, std::uint32_t dstIp, std::uint16_t dstPort) const
    {
        return m_upstreamChoice.decide(processPath, dstIp, dstPort);
    }
    std::uint16_t chooseUpstreamPort(const std::wstring &processPath, std::uint32_t dstIp,
                                     std::uint16_t dstPort) const
    {
        return decide(processPath, dstIp, dstPort).port;
    }

    /// Names that applications have looked up: connections to their addresses ask the proxy for the name.
    LearnedNames &learnedNames() { return m_learnedNames; }

    /// Operations on the completion port that have not completed yet.
    std::int64_t operationsInFlight() const { return m_completionPort.inFlight(); }

private:
    using Result = std::expected<void, std::string>;

    Result openAdapter(const std::wstring &adapterName, const std::wstring &wintunLibraryPath);
    Result configureAdapter(std::uint8_t prefixLength);
    void openFirewall();
    Result openSession();
    Result openTcpNat();
    void openUdpNat();
    void openEngine();
    void openProxyHealth();
    ProxyWitness proxyWitness();
    void openDispatcher();
    TcpNatPath tcpNatPath();
    std::optional<RelayRoute> routeFor(const TcpNatSession &session) const;
    UdpWay udpWayFor(const FlowKey &flow) const;
    void closePaths();
    void housekeeping();
    void startThreads();
    void runWorker(unsigned index);
    void runFlowControl();
    void joinThreads();

    void dropConnections();
    void logInterfaceState() const;
    void checkFilters() const;
    void startProxyReadyThread(ProxyGate::Closing closing);
    void runProxyReady(ProxyGate::Closing closing);
    void joinProxyReadyThread();
    void announceProxyReady();

    /// Its addresses and processes stand in m_upstreamChoice.
    const TunnelSettings m_settings;
    std::uint32_t m_tunnelIp = 0;
    std::atomic<std::uint32_t> m_physicalInterface = 0;
    UpstreamChoice m_upstreamChoice;
    std::function<void()> m_healthCheckFailed;

    // In this order: a start that has failed lets go of the filters while the adapter that they name is still there,
    // and the session goes with the adapter.
    std::unique_ptr<WintunAdapter> m_adapter;
    /// Null while there are no filters.
    std::unique_ptr<FirewallManager> m_firewall;
    /// Set for the time of a stop: ends every wait.
    const KernelHandle m_stopEvent;
    LearnedNames m_learnedNames;
    CompletionPort m_completionPort;
    // What completions refer to: it goes after the port has been drained.
    std::unique_ptr<ProxyHealth> m_proxyHealth;
    std::unique_ptr<ProxyCheck> m_proxyCheck;
    std::shared_ptr<TcpNatListener> m_natListener;
    std::unique_ptr<RelayConnector> m_relayConnector;
    std::unique_ptr<UdpNatRelay> m_udpNatRelay;
    EngineServices m_engineServices;
    std::unique_ptr<TcpEngine> m_tcpEngine;
    std::unique_ptr<UdpFlows> m_udpFlows;
    std::unique_ptr<PacketDispatcher> m_dispatcher;
    WorkerHousekeeping::Tasks m_housekeeping;

    std::vector<std::thread> m_workers;
    std::thread m_flowControlThread;
    std::thread m_proxyReadyThread;
    std::atomic<bool> m_running = false;
    /// Open while the proxy is taken to be ready.
    ProxyGate m_proxyGate;
};

} // namespace ruvo
