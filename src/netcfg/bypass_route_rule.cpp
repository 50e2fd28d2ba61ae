#include "netcfg/bypass_route_rule.h"

#include <utility>

namespace ruvo {

namespace {

constexpr Ipv4Network loopback{0x7F000000, 0xFF000000};
/// The mask of the tunnel's split routes.
constexpr std::uint32_t halfMask = 0x80000000;

/// Less is better: the longer prefix, then the lower metric.
std::pair<std::uint32_t, DWORD> rank(const MIB_IPFORWARDROW &row)
{
    return {~ntohl(row.dwForwardMask), row.dwForwardMetric1};
}

/// Null if there is none that wins over the tunnel's halves. Default routes do not, nor the halves of another tunnel,
/// nor those that an adapter was left with.
const MIB_IPFORWARDROW *bestRow(std::uint32_t address, std::span<const MIB_IPFORWARDROW> rows)
{
    const MIB_IPFORWARDROW *best = nullptr;
    for (const MIB_IPFORWARDROW &row : rows) {
        const Ipv4Network network{ntohl(row.dwForwardDest), ntohl(row.dwForwardMask)};
        if (network.mask <= halfMask || !network.contains(address))
            continue;
        if (!best || rank(row) < rank(*best))
            best = &row;
    }
    return best;
}

} // namespace

bool needsBypassRoute(std::uint32_t address, std::span<const MIB_IPFORWARDROW> rows, std::uint32_t originalInterface,
                      const Ipv4Network &tunnel)
{
    if (loopback.contains(address) || tunnel.contains(address))
        return false;
    const MIB_IPFORWARDROW *best = bestRow(address, rows);
    if (!best)
        return true;
    const bool isOnLink = best->dwForwardType == MIB_IPROUTE_TYPE_DIRECT || best->dwForwardNextHop == 0;
    return best->dwForwardIfIndex == originalInterface && !isOnLink;
}

} // namespace ruvo
