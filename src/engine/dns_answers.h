#pragma once

#include "engine/connection_key.h"

#include <cstddef>
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
    bool operator==(const DnsAnswer &) const = default;
};

/// A header, and the one byte that an empty name takes: whatever is shorter answers nothing.
inline constexpr std::size_t minDnsMessageSize = 13;

/// The addresses that the DNS message gives to the name that was asked for (RFC 1035 section 4). Whatever cannot be
/// read ends the list; any thread, no state.
///
/// Only a response to one question of class IN is looked at. Of the answer section, A and AAAA records of class IN
/// count, whichever name they stand under: at the end of a chain of aliases that is another one than was asked for.
/// At most 256 addresses come out, more than a message of the usual 4,096 bytes has room for: one of 64 KiB would
/// otherwise turn out thousands of learnt names at once.
std::vector<DnsAnswer> parseDnsAnswers(std::span<const std::uint8_t> message);

} // namespace ruvo
