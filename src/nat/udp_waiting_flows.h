#pragma once

#include "common/endpoint.h"

#include <cstddef>
#include <cstdint>
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

    /// A list: to move one takes no memory, so a flow can be taken out when there is none.
    using Datagrams = std::list<std::vector<std::uint8_t>>;
    struct Opening
    {
        FlowKey key;
        Endpoint target;
    };

    /// Copies the payload. Whether the flow is new here, and somebody has to open its association. Makes room by
    /// dropping the oldest flow whose opening has not begun: one that is being opened must not come back here and be
    /// opened a second time.
    bool add(const FlowKey &key, const Endpoint &target, std::span<const std::uint8_t> payload);
    /// The same for datagrams that have waited elsewhere: they are moved here.
    bool takeOver(const FlowKey &key, const Endpoint &target, Datagrams &&datagrams);
    /// The oldest flow that nobody opens yet; from now on somebody does.
    std::optional<Opening> beginOpening();
    /// Takes a flow out, and gives what has waited. Nothing if it is not here.
    Datagrams take(const FlowKey &key);
    bool contains(const FlowKey &key) const { return m_flows.contains(key); }
    void clear();
    std::size_t size() const { return m_flows.size(); }

private:
    struct Flow
    {
        Endpoint target;
        Datagrams datagrams;
        /// Its place in m_unopened; the end of it once it is being opened.
        std::list<FlowKey>::iterator unopened;
    };
    std::map<FlowKey, Flow> m_flows;
    /// The oldest first.
    std::list<FlowKey> m_unopened;
};

} // namespace ruvo
