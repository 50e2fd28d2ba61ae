#include "packet/packet_filter.h"

#include <algorithm>
#include <span>

namespace ruvo {

namespace {

bool isUnroutableIpv4(std::uint32_t address)
{
    return address >> 24 == 127                 // 127.0.0.0/8
           || address >> 28 == 0xE              // 224.0.0.0/4
           || address >> 16 == (169 << 8 | 254) // 169.254.0.0/16
           || (address & 0xFF) == 255;
}

bool isUnroutableIpv6(std::span<const std::uint8_t, 16> address)
{
    const bool isMulticast = address[0] == 0xFF;
    const bool isLoopback =
        address[15] == 1 && std::ranges::all_of(address.first<15>(), [](std::uint8_t byte) { return byte == 0; });
    return isMulticast || isLoopback;
}

constexpr std::uint8_t hopByHop = 0;
constexpr std::uint8_t routing = 43;
constexpr std::uint8_t fragment = 44;
constexpr std::uint8_t destinationOptions = 60;

// The packet was parsed, so the first two bytes of every header lie within it. Not more: a length that wraps makes a
// step of no bytes, and the packet may end right behind it.
bool isIpv6Fragment(std::span<const std::uint8_t> packet)
{
    std::uint8_t next = packet[6];
    std::size_t at = 40;
    while (next == hopByHop || next == routing || next == destinationOptions || next == fragment) {
        if (next == fragment) {
            // An offset of 0 without "more fragments" is a whole packet (RFC 6946).
            return packet.size() >= at + 4 && (packet[at + 2] != 0 || (packet[at + 3] & 0xF9) != 0);
        }
        next = packet[at];
        at += static_cast<std::uint8_t>((packet[at + 1] + 1) * 8);
    }
    return false;
}

} // namespace

bool isUnroutable(const ParsedPacket &packet)
{
    return packet.version == 4 ? isUnroutableIpv4(packet.dstIp) : isUnroutableIpv6(packet.dstIp6);
}

bool isFragment(const ParsedPacket &packet)
{
    const std::span<const std::uint8_t> bytes(packet.raw, packet.rawLen);
    if (packet.version == 4)
        return (bytes[6] & 0x3F) != 0 || bytes[7] != 0; // "more fragments", or an offset
    return isIpv6Fragment(bytes);
}

} // namespace ruvo
