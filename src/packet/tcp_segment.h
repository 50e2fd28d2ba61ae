#pragma once

#include "packet/packet_parser.h"

#include <cstdint>
#include <optional>
#include <span>

namespace ruvo {

/// What a TCP says of itself in the options of its SYN.
struct TcpSynOptions
{
    std::optional<std::uint16_t> maximumSegmentSize; ///< RFC 9293 section 3.7.1
    std::optional<std::uint8_t> windowShift;         ///< RFC 7323 section 2.2; 14 at most
};

/// One TCP segment, whole and intact. Points into the packet that it was read from; numbers in host order.
struct TcpSegment
{
    std::uint32_t seq = 0;
    std::uint32_t ack = 0;
    std::uint8_t flags = 0;
    /// As it stands in the header, not scaled.
    std::uint16_t window = 0;
    std::span<const std::uint8_t> options;
    std::span<const std::uint8_t> payload;
};

/// Nothing if the TCP header is cut short or shorter than it may be, or if the checksum is wrong: such a segment does
/// not exist for a TCP (RFC 9293 section 3.1).
std::optional<TcpSegment> readTcpSegment(const ParsedPacket &packet);

/// What cannot be read ends the list (RFC 9293 section 3.2); any thread.
TcpSynOptions readSynOptions(std::span<const std::uint8_t> options);

} // namespace ruvo
