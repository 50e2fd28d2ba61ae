#pragma once

#include "wintun/packet_plan.h"

#include <cstdint>
#include <list>
#include <optional>
#include <random>
#include <span>
#include <vector>

namespace ruvo::winehost {

/// Lets packets that come in overtake each other, and come in twice, by chance but for each seed in the same way.
/// None is lost: what is kept comes out behind as many others as it has drawn, or when no other comes. Not locked.
class PacketDisorder
{
public:
    using Packet = std::vector<BYTE>;

    /// Another plan than the last one starts its chances anew; what is kept stays.
    void follow(const PacketPlan &plan);
    bool isActive() const { return m_plan.disorders() || isKeeping(); }
    bool isKeeping() const { return !m_kept.empty(); }

    /// A packet has come in. Whether it is given out now; otherwise it is kept.
    bool admit(std::span<const BYTE> packet);
    /// One that enough others have overtaken.
    std::optional<Packet> takeDue();
    /// The one that is due next; there has to be one.
    Packet takeNext();

    std::uint64_t overtaken() const { return m_overtaken; }
    std::uint64_t repeated() const { return m_repeated; }

private:
    struct Kept
    {
        std::uint64_t due; ///< how many packets have come in by then
        Packet packet;
    };

    bool strikes(const PacketPlan::Chance &chance);
    void keep(std::span<const BYTE> packet, const PacketPlan::Chance &chance);

    PacketPlan m_plan;
    std::minstd_rand m_random;
    std::uint64_t m_arrived = 0;
    std::uint64_t m_overtaken = 0;
    std::uint64_t m_repeated = 0;
    std::list<Kept> m_kept; ///< what is due first stands first
};

} // namespace ruvo::winehost
