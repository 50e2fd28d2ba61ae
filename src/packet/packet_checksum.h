#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace ruvo {

// The Internet checksum (RFC 1071) of IPv4 headers (RFC 791), TCP (RFC 9293, section 3.1) and UDP (RFC 768).
//
// Words are summed as they lie in memory, so a result is already in the byte order of the wire: it goes into the
// packet as it is (`storeChecksum`), never through a byte swap. Any thread; nothing is allocated, the bytes are
// read where they are and may start at any address.

/// Over `len` bytes as they are: the checksum field has to be zero, or the result is 0 for an intact header.
std::uint16_t ipChecksum(const std::uint8_t *header, std::size_t len);

/// Over the pseudo-header with the addresses of `ipHeader`, `tcpHeaderLen` bytes of header and the payload. The
/// checksum field of `tcpHeader` counts as zero, whatever it holds. A result of 0 stays 0: TCP knows no "none".
std::uint16_t tcpChecksum(const std::uint8_t *ipHeader, const std::uint8_t *tcpHeader, const std::uint8_t *payload,
                          std::size_t payloadLen, std::size_t tcpHeaderLen);

/// The same for UDP. A result of 0 becomes 0xFFFF, as 0 in a datagram means that it has no checksum.
std::uint16_t udpChecksum(const std::uint8_t *ipHeader, const std::uint8_t *udpHeader, const std::uint8_t *payload,
                          std::size_t payloadLen);

/// Whether the checksum of a TCP segment fits its bytes and the pseudo-header of its packet, IPv4 or IPv6 (RFC 8200
/// section 8.1). `segment` is header and payload; `addresses` is where the source's address stands in the packet,
/// with the destination's behind it.
bool isTcpChecksumRight(std::span<const std::uint8_t> addresses, std::span<const std::uint8_t> segment);

/// Writes a checksum of this file to its place.
void storeChecksum(std::uint16_t checksum, std::uint8_t *field);

} // namespace ruvo
