#include "wintun/packet_disorder.h"

#include <algorithm>

namespace ruvo::winehost {

void PacketDisorder::follow(const PacketPlan &plan)
{
    if (plan == m_plan)
        return;
    m_plan = plan;
    m_random.seed(static_cast<std::minstd_rand::result_type>(plan.seed));
}

bool PacketDisorder::strikes(const PacketPlan::Chance &chance)
{
    return chance.percent > 0 && m_random() % 100 < chance.percent;
}

void PacketDisorder::keep(std::span<const BYTE> packet, const PacketPlan::Chance &chance)
{
    const std::uint64_t due = m_arrived + 1 + m_random() % chance.most;
    const auto next = std::ranges::find_if(m_kept, [due](const Kept &other) { return other.due > due; });
    m_kept.insert(next, {due, {packet.begin(), packet.end()}});
}

bool PacketDisorder::admit(std::span<const BYTE> packet)
{
    ++m_arrived;
    if (strikes(m_plan.duplicate)) {
        ++m_repeated;
        keep(packet, m_plan.duplicate);
    }
    if (!strikes(m_plan.reorder))
        return true;
    ++m_overtaken;
    keep(packet, m_plan.reorder);
    return false;
}

std::optional<PacketDisorder::Packet> PacketDisorder::takeDue()
{
    // Without a plan all of it is due.
    if (m_kept.empty() || (m_kept.front().due > m_arrived && m_plan.disorders()))
        return std::nullopt;
    return takeNext();
}

PacketDisorder::Packet PacketDisorder::takeNext()
{
    Packet packet = std::move(m_kept.front().packet);
    m_kept.pop_front();
    return packet;
}

} // namespace ruvo::winehost
