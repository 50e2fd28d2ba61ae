#pragma once

#include "common/winsock_headers.h"

#include <cstdint>
#include <span>

namespace ruvo {

/// The network of an interface, in host order. Without values it contains nothing but 0.0.0.0.
struct Ipv4Network
{
    std::uint32_t address = 0;
    std::uint32_t mask = 0xFFFFFFFF;

    bool contains(std::uint32_t other) const { return (other & mask) == (address & mask); }
};

/// Whether an address (host order) can keep its way past the tunnel only by a host route through the original
/// gateway. Not so an address of this machine, of the tunnel's own network (which Windows may not list yet), and one
/// that the best of `rows`, the system's routes, reaches on-link or through another interface than the original
/// default route's: sent to the gateway, packets for it would not arrive.
bool needsBypassRoute(std::uint32_t address, std::span<const MIB_IPFORWARDROW> rows, std::uint32_t originalInterface,
                      const Ipv4Network &tunnel);

} // namespace ruvo
