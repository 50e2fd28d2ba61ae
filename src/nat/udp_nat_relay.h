#pragma once

#include "common/endpoint.h"
#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "io/completion_port.h"
#include "io/connection_threads.h"
#include "nat/udp_nat_session.h"
#include "nat/udp_waiting_flows.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <utility>

namespace ruvo {

/// Carries UDP datagrams through the proxy, each flow in an association of its own, and turns the answers into
/// packets for the adapter.
///
/// forward is called by the reader thread and never waits: datagrams of a flow whose association is not there yet are
/// kept while it is opened on a thread that may block. m_mutex guards the maps; a datagram of an open flow is sent
/// under it, a handshake never runs under it. Addresses and ports in host order.
class UdpNatRelay
{
public:
    /// A flow that carries nothing either way ends after this.
    static constexpr std::chrono::seconds idleTime{61};
    static constexpr std::size_t maxSessions = 2048;

    /// Gets an IPv4/UDP packet for the adapter, on a worker.
    using PacketOutput = std::function<void(const std::uint8_t *packet, std::size_t length)>;
    /// Gets the datagrams of a flow that no association could be opened for, in order, on an opener's thread.
    using Fallback = std::function<void(const FlowKey &flow, std::span<const std::uint8_t> payload)>;

    /// `stopEvent` (not owned) ends the handshakes.
    explicit UdpNatRelay(HANDLE stopEvent, SteadyClock clock = steadyNow, std::size_t sessionLimit = maxSessions)
        : m_stopEvent(stopEvent), m_clock(std::move(clock)), m_sessionLimit(sessionLimit)
    {}
    ~UdpNatRelay() { shutdown(); }
    UdpNatRelay(const UdpNatRelay &) = delete;
    UdpNatRelay &operator=(const UdpNatRelay &) = delete;

    /// The proxy and its two inbounds, as the tunnel is configured.
    struct Settings
    {
        std::uint32_t tunnelValue = 0;
        /// A dotted IPv4 address.
        std::string proxyHost;
        std::uint16_t proxyPort = 0;
        /// The inbound for DNS.
        std::uint16_t directPort = 0;
    };

    /// True: there is nothing that can fail.
    bool initialize(const Settings &settings, CompletionPort &completionPort, PacketOutput packetOutput);
    bool initialize(std::uint32_t tunnelValue, const std::string &proxyHost, std::uint16_t proxyPort,
                    std::uint16_t directPort, CompletionPort &completionPort, PacketOutput packetOutput)
    {
        return initialize({tunnelValue, proxyHost, proxyPort, directPort}, completionPort, std::move(packetOutput));
    }
    /// Before the first datagram.
    void setFallback(Fallback fallback) { m_fallback = std::move(fallback); }
    /// Told of the control connections, on the openers' threads. Before the first datagram.
    void setProxyWitness(ProxyWitness witness) { m_proxyWitness = std::move(witness); }

    /// Sends the datagram, or keeps it until it can be sent. `flow` is what the client sees: itself, and where it
    /// sends and gets its answers from; `target` is where the proxy shall send. False if it was refused.
    bool forward(const FlowKey &flow, const Endpoint &target, std::span<const std::uint8_t> payload);
    bool forward(std::uint32_t clientAddress, std::uint16_t clientPort, std::uint32_t requestedAddress,
                 std::uint16_t requestedPort, std::uint32_t targetAddress, std::uint16_t targetPort,
                 const std::uint8_t *payload, std::uint16_t length)
    {
        return forward({{clientAddress, clientPort}, {requestedAddress, requestedPort}}, {targetAddress, targetPort},
                       {payload, length});
    }
    /// Once a second: ends what has been idle for long enough.
    void expireIdle();
    /// Once the stop event is set: waits for the handshakes and ends everything.
    void shutdown();
    std::size_t sessions() const;

private:
    static constexpr unsigned maxOpeners = 16;

    bool isStopping() const;
    void openWaiting();
    void open(const UdpWaitingFlows::Opening &flow);
    void giveUp(const UdpWaitingFlows::Opening &flow);
    bool insert(const UdpNatSessionPtr &session);
    void onAnswer(UdpNatSession &session, std::span<const std::uint8_t> payload);
    void touch(UdpNatSession &session);
    void remove(const UdpNatSessionPtr &session);
    void forget(const UdpNatSession &session);

    const HANDLE m_stopEvent;
    const SteadyClock m_clock;
    const std::size_t m_sessionLimit;
    std::uint32_t m_tunnelValue = 0;
    std::wstring m_proxyHost;
    std::uint16_t m_proxyPort = 0;
    std::uint16_t m_directPort = 0;
    CompletionPort *m_completionPort = nullptr;
    PacketOutput m_packetOutput;
    Fallback m_fallback;
    ProxyWitness m_proxyWitness;
    std::atomic<bool> m_initialized = false;

    mutable std::mutex m_mutex;
    std::map<FlowKey, UdpNatSessionPtr> m_flows;
    /// The same, the longest idle first.
    std::list<UdpNatSessionPtr> m_byActivity;
    UdpWaitingFlows m_waiting;
    /// Threads that open what waits, or are about to: never more jobs than threads, however much waits.
    unsigned m_opening = 0;
    ConnectionThreads m_openers{maxOpeners};
};

} // namespace ruvo
