#pragma once

#include "netcfg/inet_address.h"

#include <netioapi.h>

#include <bit>
#include <cstdint>

namespace ruvo {

/// A route as Windows' newer calls take it, with neither interface nor metric yet. In host order; a next hop of 0
/// means on-link, and a deletion finds only the route with exactly this next hop.
inline MIB_IPFORWARD_ROW2 forwardRow(std::uint32_t destination, std::uint32_t mask, std::uint32_t nextHop)
{
    MIB_IPFORWARD_ROW2 row;
    InitializeIpForwardEntry(&row);
    row.DestinationPrefix.Prefix = inetAddress(destination);
    row.DestinationPrefix.PrefixLength = static_cast<UINT8>(std::countl_one(mask));
    row.NextHop = inetAddress(nextHop);
    return row;
}

} // namespace ruvo
