#pragma once

#include "common/dns_redirect.h"
#include "common/endpoint.h"
#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "io/completion_port.h"
#include "io/connection_threads.h"
#include "nat/udp_nat_log.h"
#include "nat/udp_nat_session.h"
#include "nat/udp_waiting_flows.h"

#include <array>
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

/// How the datagrams of a new flow leave.
enum class UdpWay {
    Associate, ///< Through the proxy.
    Direct,    ///< Past it, through the physical interface.
    Drop,      ///< Not at all.
};

/// Carries UDP datagrams through the proxy, each flow in an association of its own, and turns the answers into
/// packets for the adapter.
///
/// forward is called by the reader thread and never waits: datagrams of a flow whose association is not there yet are
/// kept while it is opened on a thread that may block. Each inbound has threads and a queue of its own, so that one
/// that does not answer holds up only itself. m_mutex guards the maps; a datagram of an open flow is sent under it, a
/// handshake never runs under it. What there is no memory for is lost as datagrams are. Addresses and ports in host
/// order.
class UdpNatRelay
{
public:
    /// A flow that carries nothing either way ends after this.
    static constexpr std::chrono::seconds idleTime{61};
    /// Of each inbound.
    static constexpr std::size_t maxSessions = 2048;

    /// Gets an IPv4/UDP packet for the adapter, on a worker.
    using PacketOutput = std::function<void(const std::uint8_t *packet, std::size_t length)>;
    /// Gets the datagrams of a flow that no association could be opened for, in order, on an opener's thread.
    using Fallback = std::function<void(const FlowKey &flow, std::span<const std::uint8_t> payload)>;

    /// Asked on an opener's thread.
    struct Questions
    {
        /// Of each new flow but those to the tunnel's own resolver, which go to the proxy.
        std::function<UdpWay(const FlowKey &flow)> wayFor;
        /// Which interface direct flows leave through; 0 if it is not known.
        std::function<std::uint32_t()> physicalInterface;
    };

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
    /// Before the first datagram. Without them every flow goes to the proxy.
    void setQuestions(Questions questions) { m_questions = std::move(questions); }
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
    /// New flows of one kind wait here, for threads that have nothing else to do.
    struct Lane
    {
        explicit Lane(unsigned limit) : maxOpeners(limit), openers(limit) {}

        UdpWaitingFlows waiting;
        const unsigned maxOpeners;
        /// Threads that open what waits, or are about to: never more jobs than threads, however much waits.
        unsigned opening = 0;
        ConnectionThreads openers;
        /// The flows of an inbound, the longest idle first.
        std::list<UdpNatSessionPtr> byActivity;
    };

    bool isStopping() const;
    std::array<Lane *, 4> lanes() { return {&m_unaskedDns, &m_unasked, &m_dns, &m_proxied}; }
    Lane &inboundOf(const Endpoint &target) { return target.port == dnsPort ? m_dns : m_proxied; }
    Lane &unaskedOf(const Endpoint &target) { return target.port == dnsPort ? m_unaskedDns : m_unasked; }
    Lane &laneToWaitIn(const FlowKey &flow, const Endpoint &target);
    static bool takeOpener(Lane &lane);
    void startOpener(Lane &lane);
    void openWaiting(Lane &lane);
    bool isDropped(const FlowKey &flow);
    void ask(const UdpWaitingFlows::Opening &flow);
    void handOn(const UdpWaitingFlows::Opening &flow);
    bool openDirect(const UdpWaitingFlows::Opening &flow);
    void open(const UdpWaitingFlows::Opening &flow);
    void giveUp(const UdpWaitingFlows::Opening &flow);
    UdpWaitingFlows::Datagrams takeWaiting(const FlowKey &flow);
    void start(const UdpNatSessionPtr &session);
    bool insert(const UdpNatSessionPtr &session);
    void onAnswer(UdpNatSession &session, std::span<const std::uint8_t> payload);
    void touch(UdpNatSession &session);
    void remove(const UdpNatSessionPtr &session);

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
    Questions m_questions;
    ProxyWitness m_proxyWitness;
    UdpNatLog m_log;
    std::atomic<bool> m_initialized = false;

    mutable std::mutex m_mutex;
    std::map<FlowKey, UdpNatSessionPtr> m_flows;
    /// New flows that are to be dropped, and until when they are without being asked about again.
    std::map<FlowKey, SteadyTime> m_dropped;
    /// Flows whose way is not known yet. The answer does not wait for anything, nor does what opens there.
    Lane m_unaskedDns{2};
    Lane m_unasked{2};
    Lane m_dns{16};
    Lane m_proxied{16};
};

} // namespace ruvo
