#pragma once

#include "common/endpoint.h"

namespace ruvo {

inline constexpr std::uint16_t dnsPort = 53;
/// Where queries to the tunnel's own DNS address are answered.
inline constexpr std::uint32_t publicResolver = 0x08080808; // 8.8.8.8

/// Where a datagram or connection really goes: what is sent to port 53 of the tunnel's own DNS address, the one
/// behind `tunnelIp`, goes to a public resolver. Host order.
constexpr Endpoint realDestination(const Endpoint &destination, std::uint32_t tunnelIp)
{
    const bool isTunnelDns = destination.address == tunnelIp + 1 && destination.port == dnsPort;
    return isTunnelDns ? Endpoint{publicResolver, dnsPort} : destination;
}

} // namespace ruvo
