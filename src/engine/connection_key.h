#pragma once

#include "common/endpoint.h"
#include "packet/packet_parser.h"

#include <array>
#include <compare>
#include <cstdint>

namespace ruvo {

/// As on the wire.
using Ipv6Bytes = std::array<std::uint8_t, 16>;

/// What a connection or flow of the engine is known by: who talks to whom, of either IP version. Addresses and ports
/// of IPv4 in host order; what belongs to the other version is zero.
struct ConnectionKey
{
    std::uint8_t family = 4; ///< 4 or 6
    std::uint8_t protocol = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
    std::uint32_t sourceIp = 0;
    /// Where it really goes: a public resolver, where the application asked the tunnel's own DNS address.
    std::uint32_t destinationIp = 0;
    Ipv6Bytes sourceIp6{};
    Ipv6Bytes destinationIp6{};
    auto operator<=>(const ConnectionKey &) const = default;
};

/// The key of the connection or flow that a packet from the application belongs to. `tunnelIp` in host order.
ConnectionKey connectionKeyOf(const ParsedPacket &packet, std::uint32_t tunnelIp);

/// RFC 4291 section 2.2, in its long form.
QString ipv6Text(const Ipv6Bytes &address);
/// The destination's address as log lines name it.
QString destinationText(const ConnectionKey &key);

} // namespace ruvo
