#pragma once

// Sizes, places and values of the IPv4 (RFC 791), IPv6 (RFC 8200), TCP (RFC 9293) and UDP (RFC 768) headers that
// more than one file of the codec needs. Offsets are in bytes from the start of the header they are named after.

#include <cstddef>
#include <cstdint>

namespace ruvo {

inline constexpr std::uint8_t protocolIcmp = 1;
inline constexpr std::uint8_t protocolTcp = 6;
inline constexpr std::uint8_t protocolUdp = 17;

inline constexpr std::uint8_t tcpFin = 0x01;
inline constexpr std::uint8_t tcpSyn = 0x02;
inline constexpr std::uint8_t tcpRst = 0x04;
inline constexpr std::uint8_t tcpPsh = 0x08;
inline constexpr std::uint8_t tcpAck = 0x10;

/// The sizes without options.
inline constexpr std::size_t ipv4HeaderSize = 20;
inline constexpr std::size_t ipv6HeaderSize = 40;
inline constexpr std::size_t tcpHeaderSize = 20;
inline constexpr std::size_t udpHeaderSize = 8;

inline constexpr std::size_t ipv6SourceOffset = 8;

inline constexpr std::size_t ipv4TotalLengthOffset = 2;
inline constexpr std::size_t ipv4ProtocolOffset = 9;
inline constexpr std::size_t ipv4ChecksumOffset = 10;
inline constexpr std::size_t ipv4SourceOffset = 12;
inline constexpr std::size_t ipv4DestinationOffset = 16;

/// The same for TCP and UDP.
inline constexpr std::size_t sourcePortOffset = 0;
inline constexpr std::size_t destinationPortOffset = 2;

inline constexpr std::size_t tcpSequenceOffset = 4;
inline constexpr std::size_t tcpAcknowledgementOffset = 8;
inline constexpr std::size_t tcpDataOffsetOffset = 12;
inline constexpr std::size_t tcpFlagsOffset = 13;
inline constexpr std::size_t tcpWindowOffset = 14;
inline constexpr std::size_t tcpChecksumOffset = 16;

inline constexpr std::size_t udpChecksumOffset = 6;

} // namespace ruvo
