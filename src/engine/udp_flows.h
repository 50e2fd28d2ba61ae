#pragma once

#include "common/endpoint.h"
#include "engine/engine_services.h"
#include "engine/udp_flow.h"
#include "engine/udp_flow_log.h"
#include "packet/packet_parser.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace ruvo {

/// The UDP flows of applications, each with an association of its own, for what the UDP NAT relay does not carry:
/// IPv6, and IPv4 that it refuses or had no association for. Names are learnt from the DNS answers among what comes
/// back.
///
/// Datagrams come from the reader thread and from the NAT relay's threads, completions on the workers; none of them
/// waits here. m_mutex guards the table; it is held while a flow is found, put in or taken out, and never over a call
/// on a socket or of the adapter. Lock order: table, flow, exchange. A flow that there is no memory for is lost, and
/// no more than that.
class UdpFlows
{
public:
    static constexpr std::chrono::seconds idleTime{61};
    /// A proxy that does not answer has this long.
    static constexpr std::chrono::seconds handshakeTimeout{60};
    static constexpr std::size_t maxFlows = 2048;

    /// `services` has to outlive it. The completion port is drained between closeAll and the destructor.
    explicit UdpFlows(const EngineServices &services, std::size_t flowLimit = maxFlows);
    ~UdpFlows() { closeAll(); }
    UdpFlows(const UdpFlows &) = delete;
    UdpFlows &operator=(const UdpFlows &) = delete;

    /// A datagram from an application. The packet is read before this returns.
    void handleUdpPacket(const ParsedPacket &packet);
    /// The same for one whose packet has gone: `flow` is IPv4, as the application sees it.
    void forwardFallback(const FlowKey &flow, std::span<const std::uint8_t> payload);

    /// Ends the flows that have carried nothing for idleTime. A look at the clock and at one flow when there are
    /// none.
    void sweepIdle();
    /// Once a second: ends the flows whose proxy does not answer.
    void expireHandshakes();

    /// Empties the table and ends the I/O of what was in it. The caller closes the flows, once the completions have
    /// been through the workers.
    std::list<UdpFlowPtr> takeAll();
    /// Ends all flows, for good: none is opened any more.
    void closeAll();

    // What happens to a flow.
    void onControlCompleted(const UdpFlowPtr &flow, PortExchange::Outcome outcome);
    void onDatagramReceived(const UdpFlowPtr &flow, std::size_t bytes);
    /// Posts the next receive; `flow` may be null.
    void postUdpRecv(const UdpFlowPtr &flow);
    /// Closes the flow, and takes it out of the table if it is this very one that stands there.
    void cleanupFlow(const UdpFlowPtr &flow);

    std::size_t size() const;
    /// Those in the table, the longest idle first.
    std::vector<UdpFlowPtr> flows() const;

private:
    void forward(const UdpFlowId &id, std::span<const std::uint8_t> payload);
    UdpFlowPtr findActive(const UdpFlowId &id);
    UdpFlowPtr makeFlow(const UdpFlowId &id);
    /// The flow that has its place in the table now; null after closeAll.
    UdpFlowPtr insert(const UdpFlowPtr &flow);
    bool touch(UdpFlow &flow);
    void forget(const UdpFlow &flow);
    void onReceived(const UdpFlowPtr &flow, DWORD bytes, DWORD error);
    void learnNames(const RelayedDatagram &datagram);
    void answer(const UdpFlow &flow, std::span<const std::uint8_t> payload);

    const EngineServices &m_services;
    const std::size_t m_flowLimit;
    const UdpFlowContext m_context;
    UdpFlowLog m_log;

    mutable std::mutex m_mutex;
    bool m_closed = false;
    std::map<UdpFlowId, UdpFlowPtr> m_flows;
    /// The same, the longest idle first.
    std::list<UdpFlowPtr> m_byActivity;
};

} // namespace ruvo
