#pragma once

#include "transport/socks5_messages.h"
#include "transport/udp_flow_key.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace ruvo {

/// Datagrams that wait for their flow's association, in order. Bounded both ways: a proxy that does not answer costs
/// nothing but the oldest of them. Not locked.
class UdpWaitingFlows
{
public:
    static constexpr std::size_t maxDatagrams = 64; // of one flow
    static constexpr std::size_t maxFlows = 1024;

    struct Flow
    {
        socks5::Endpoint target;
        std::deque<std::vector<std::uint8_t>> datagrams;
    };

    /// Copies the payload. Whether the flow is new here, and somebody has to open its association.
    bool add(const UdpFlowKey &key, socks5::Endpoint target, std::span<const std::uint8_t> payload);
    /// Where a flow wants to go; nothing if it has been pushed out.
    std::optional<socks5::Endpoint> targetOf(const UdpFlowKey &key) const;
    /// Takes a flow out; empty if it has been pushed out.
    Flow take(const UdpFlowKey &key);
    void clear();
    std::size_t size() const { return m_flows.size(); }

private:
    struct Entry
    {
        Flow flow;
        std::list<UdpFlowKey>::iterator position;
    };
    std::map<UdpFlowKey, Entry> m_flows;
    /// The oldest first.
    std::list<UdpFlowKey> m_order;
};

} // namespace ruvo
