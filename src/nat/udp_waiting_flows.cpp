#include "nat/udp_waiting_flows.h"

#include <utility>

namespace ruvo {

bool UdpWaitingFlows::add(const FlowKey &key, const Endpoint &target, std::span<const std::uint8_t> payload)
{
    Datagrams datagram;
    datagram.emplace_back(payload.begin(), payload.end());
    return takeOver(key, target, std::move(datagram));
}

bool UdpWaitingFlows::takeOver(const FlowKey &key, const Endpoint &target, Datagrams &&datagrams)
{
    // Each step that takes memory leaves nothing half done if there is none.
    auto found = m_flows.find(key);
    const bool isNew = found == m_flows.end();
    if (isNew) {
        if (m_flows.size() >= maxFlows && !m_unopened.empty()) {
            m_flows.erase(m_unopened.front());
            m_unopened.pop_front();
        }
        std::list<FlowKey> unopened{key};
        found = m_flows.emplace(key, Flow{target, {}, unopened.begin()}).first;
        m_unopened.splice(m_unopened.end(), unopened);
    }
    Datagrams &waiting = found->second.datagrams;
    waiting.splice(waiting.end(), datagrams);
    while (waiting.size() > maxDatagrams)
        waiting.pop_front();
    return isNew;
}

std::optional<UdpWaitingFlows::Opening> UdpWaitingFlows::beginOpening()
{
    if (m_unopened.empty())
        return std::nullopt;
    const FlowKey key = m_unopened.front();
    m_unopened.pop_front();
    Flow &flow = m_flows.at(key);
    flow.unopened = m_unopened.end();
    return Opening{key, flow.target};
}

UdpWaitingFlows::Datagrams UdpWaitingFlows::take(const FlowKey &key)
{
    const auto found = m_flows.find(key);
    if (found == m_flows.end())
        return {};
    Datagrams datagrams = std::move(found->second.datagrams);
    if (found->second.unopened != m_unopened.end())
        m_unopened.erase(found->second.unopened);
    m_flows.erase(found);
    return datagrams;
}

void UdpWaitingFlows::clear()
{
    m_flows.clear();
    m_unopened.clear();
}

} // namespace ruvo
