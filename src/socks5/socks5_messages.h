#pragma once

#include "common/endpoint.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace ruvo::socks5 {

// The bytes of SOCKS5 (RFC 1928) that the daemon sends and accepts: no authentication, CONNECT and UDP ASSOCIATE.
// Addresses and ports are in host order here, in network order in the bytes. Nothing is logged.

using ruvo::Endpoint;
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;
using Ipv6Address = std::array<std::uint8_t, 16>; // as on the wire

inline constexpr std::uint8_t protocolVersion = 5;
inline constexpr std::size_t methodReplySize = 2;
/// Every reply has at least this; what its address type adds comes behind.
inline constexpr std::size_t minReplySize = 10;
/// No reply is read beyond this.
inline constexpr std::size_t maxReplySize = 512;
inline constexpr std::size_t maxDomainLength = 255;
inline constexpr std::size_t udpHeaderSizeIpv4 = 10;
inline constexpr std::size_t udpHeaderSizeIpv6 = 22;

/// RFC 1928 section 3: one method offered, none required.
inline constexpr std::array<std::uint8_t, 3> greeting = {protocolVersion, 1, 0};
/// Section 4: UDP ASSOCIATE from 0.0.0.0 port 0, as the source is not known beforehand.
inline constexpr std::array<std::uint8_t, 10> udpAssociateRequest = {protocolVersion, 3, 0, 1, 0, 0, 0, 0, 0, 0};

/// Whether the proxy chose the one method that was offered. `reply` has methodReplySize bytes.
bool isMethodAccepted(ByteView reply);

std::array<std::uint8_t, 10> connectRequest(std::uint32_t address, std::uint16_t port);
Bytes connectRequest(const Ipv6Address &address, std::uint16_t port);
/// Nothing if the name is empty or longer than `maxLength`. The request has one byte for the length: of a name that
/// is longer than maxDomainLength it holds the low bits only.
std::optional<Bytes> connectRequest(std::string_view domain, std::uint16_t port,
                                    std::size_t maxLength = maxDomainLength);

/// How long the whole reply is, from its first minReplySize bytes. At least minReplySize: a shorter one does not
/// count as a reply.
std::size_t replySize(ByteView start);
/// The REP field if the reply means failure (or is of another version), nothing if it means success. `reply` has
/// minReplySize bytes.
std::optional<std::uint8_t> replyFailure(ByteView reply);

/// Where the proxy takes datagrams, from its reply to UDP ASSOCIATE. An address of 0.0.0.0 means the proxy's own.
/// Nothing if the reply is short, means failure, or names no IPv4 address.
std::optional<Endpoint> parseUdpAssociateReply(ByteView reply, std::uint32_t proxyAddress);

/// The header of a datagram to an IPv4 destination (section 7).
std::array<std::uint8_t, udpHeaderSizeIpv4> udpHeader(std::uint32_t address, std::uint16_t port);
/// Header and payload.
Bytes udpDatagram(ByteView payload, std::uint32_t address, std::uint16_t port);
Bytes udpDatagram(ByteView payload, const Ipv6Address &address, std::uint16_t port);

/// The size of a received datagram's header; nothing if it is cut short or of an unknown address type.
std::optional<std::size_t> udpHeaderSize(ByteView datagram);

} // namespace ruvo::socks5
