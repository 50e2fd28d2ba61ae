#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ruvo {

/// One IP packet as the tunnel sees it. Owns nothing: `payload` and `raw` point into the parsed buffer, which has
/// to outlive this. Numbers, IPv4 addresses and ports are in host order.
struct ParsedPacket
{
    /// Whether the packet could be read at least as far as its IP header. Of an invalid one nothing is to be used
    /// but `raw` and `rawLen`.
    bool valid = false;
    /// 4 or 6.
    std::uint8_t version = 0;
    /// The IPv4 protocol, or what follows the extension headers of IPv6.
    std::uint8_t protocol = 0;
    /// 0 for IPv6.
    std::uint32_t srcIp = 0;
    std::uint32_t dstIp = 0;
    /// As on the wire; zero for IPv4.
    std::array<std::uint8_t, 16> srcIp6 = {};
    std::array<std::uint8_t, 16> dstIp6 = {};
    /// TCP and UDP; 0 when the transport header is cut short.
    std::uint16_t srcPort = 0;
    std::uint16_t dstPort = 0;
    std::uint32_t seq = 0;
    std::uint32_t ack = 0;
    std::uint8_t tcpFlags = 0;
    /// Behind the transport header, up to the end of the buffer; null and 0 when it was not found.
    const std::uint8_t *payload = nullptr;
    std::size_t payloadLen = 0;
    /// The whole buffer.
    const std::uint8_t *raw = nullptr;
    std::size_t rawLen = 0;
    /// The TCP or UDP header, without which there are no ports; else null.
    const std::uint8_t *transport = nullptr;
};

/// Reads the packet of `len` bytes at `data`. Any thread; allocates nothing, verifies no checksum.
///
/// The adapter delivers one packet a buffer, so the buffer's length is the packet's: the length fields of IPv4 and
/// UDP are not consulted, and an IPv4 header shorter than 20 bytes is taken as it claims to be. Fragments are not
/// told apart: what lies behind the IP header of one is read as a transport header.
ParsedPacket parsePacket(const std::uint8_t *data, std::size_t len);

} // namespace ruvo
