#pragma once

#include <cstddef>
#include <cstdint>

namespace ruvo {

/// Whether rewriteTcpAddresses can rewrite the packet.
bool isRewritableTcp(const std::uint8_t *packet, std::size_t len);

/// Gives the IPv4/TCP packet of `len` bytes at `packet` other addresses and ports (host order) and computes both
/// checksums anew, whatever they were before. In place, any thread, nothing is allocated.
///
/// False, and the packet untouched, when it is shorter than 40 bytes, not IPv4 or not TCP, or when its header
/// lengths and its total length do not fit into each other and into `len`. Ports, data offset and checksum are taken
/// where they are behind an IPv4 header without options: what comes from the adapter carries none.
bool rewriteTcpAddresses(std::uint8_t *packet, std::size_t len, std::uint32_t newSrcIp, std::uint16_t newSrcPort,
                         std::uint32_t newDstIp, std::uint16_t newDstPort);

} // namespace ruvo
