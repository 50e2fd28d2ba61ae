#include "transport/udp_waiting_flows.h"

#include <iterator>
#include <utility>

namespace ruvo {

bool UdpWaitingFlows::add(const UdpFlowKey &key, socks5::Endpoint target, std::span<const std::uint8_t> payload)
{
    auto found = m_flows.find(key);
    const bool isNew = found == m_flows.end();
    if (isNew) {
        if (m_flows.size() == maxFlows) {
            m_flows.erase(m_order.front());
            m_order.pop_front();
        }
        m_order.push_back(key);
        found = m_flows.emplace(key, Entry{{target, {}}, std::prev(m_order.end())}).first;
    }
    auto &datagrams = found->second.flow.datagrams;
    if (datagrams.size() == maxDatagrams)
        datagrams.pop_front();
    datagrams.emplace_back(payload.begin(), payload.end());
    return isNew;
}

std::optional<socks5::Endpoint> UdpWaitingFlows::targetOf(const UdpFlowKey &key) const
{
    const auto found = m_flows.find(key);
    if (found == m_flows.end())
        return std::nullopt;
    return found->second.flow.target;
}

UdpWaitingFlows::Flow UdpWaitingFlows::take(const UdpFlowKey &key)
{
    const auto found = m_flows.find(key);
    if (found == m_flows.end())
        return {};
    Flow flow = std::move(found->second.flow);
    m_order.erase(found->second.position);
    m_flows.erase(found);
    return flow;
}

void UdpWaitingFlows::clear()
{
    m_flows.clear();
    m_order.clear();
}

} // namespace ruvo
