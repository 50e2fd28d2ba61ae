#pragma once

#include "engine/connection_key.h"

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace ruvo {

/// An address that a DNS answer gives to a name.
struct DnsAnswer
{
    std::string name;
    /// IPv4 in host order, or IPv6 as on the wire.
    std::variant<std::uint32_t, Ipv6Bytes> address;
    /// Seconds, within 60 and 86,400.
    std::uint32_t timeToLive = 0;
};

/// The addresses that the DNS message gives to the name that was asked for (RFC 1035 section 4). Whatever cannot be
/// read ends the list; any thread, no state.
std::vector<DnsAnswer> parseDnsAnswers(std::span<const std::uint8_t> message);

} // namespace ruvo
