#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ruvo {

/// One whole packet, ready for the adapter. Owned by whoever got it from a builder.
using PacketBytes = std::vector<std::uint8_t>;

// Builders of the IPv4 packets that are injected into the adapter. Addresses, ports and numbers are in host order;
// the payload is copied, and may be null when `payloadLen` is 0. Any thread. A packet is one allocation of exactly
// its size; one that would not fit into the 65,535 bytes of an IPv4 packet is not built: the result is empty.

/// IPv4 (RFC 791) and TCP (RFC 9293). A packet whose `flags` hold SYN carries the engine's options: a maximum
/// segment size of 1220, window scaling by 8 (RFC 7323) and "selective acknowledgements permitted" (RFC 2018). The
/// window is always 65535.
PacketBytes buildTcpPacket(std::uint32_t srcIp, std::uint16_t srcPort, std::uint32_t dstIp, std::uint16_t dstPort,
                           std::uint32_t seq, std::uint32_t ack, std::uint8_t flags, const std::uint8_t *payload,
                           std::size_t payloadLen);

/// IPv4 and UDP (RFC 768), always with a checksum. A payload of more than 65,507 bytes does not fit.
PacketBytes buildUdpPacket(std::uint32_t srcIp, std::uint16_t srcPort, std::uint32_t dstIp, std::uint16_t dstPort,
                           const std::uint8_t *payload, std::size_t payloadLen);

} // namespace ruvo
