// Whatever a packet holds, the parser and the filter behind it stay within it and say what a plain reading by offsets
// says.
//
// Input: the packet.

#include "fuzz_check.h"
#include "packet/packet_filter.h"
#include "packet/packet_parser.h"
#include "unit/packet/packet_reference.h"

#include <cstdint>
#include <cstring>
#include <optional>

namespace {

using ruvo::ParsedPacket;
using ruvo::test::Bytes;
using ruvo::test::get16;

constexpr std::uint8_t icmp = 1, tcp = 6, udp = 17;

std::uint32_t get32(const Bytes &from, std::size_t offset)
{
    return get16(from, offset) << 16 | get16(from, offset + 2);
}

/// Where the transport header of a valid packet begins, and of what kind it is.
struct Transport
{
    std::size_t offset;
    std::uint8_t protocol;
};

std::optional<Transport> findIpv4Transport(const Bytes &packet)
{
    const std::size_t offset = (packet.at(0) % 16U) * 4;
    if (offset > packet.size())
        return std::nullopt;
    return Transport{offset, packet.at(9)};
}

std::optional<Transport> findIpv6Transport(const Bytes &packet)
{
    if (packet.size() < 40)
        return std::nullopt;
    std::size_t offset = 40;
    std::uint8_t type = packet.at(6);
    while (type == 0 || type == 43 || type == 44 || type == 60) {
        if (offset + 2 > packet.size())
            return std::nullopt;
        const std::uint8_t next = packet.at(offset);
        const std::size_t step = (packet.at(offset + 1) + 1U) * 8 % 256;
        const bool forEver = step == 0 && (next == 0 || next == 43 || next == 44 || next == 60);
        if (forEver || offset + step > packet.size())
            return std::nullopt;
        offset += step;
        type = next;
    }
    return Transport{offset, type};
}

std::optional<Transport> findTransport(const Bytes &packet)
{
    if (packet.size() < 20)
        return std::nullopt;
    switch (packet.at(0) / 16) {
    case 4: return findIpv4Transport(packet);
    case 6: return findIpv6Transport(packet);
    default: return std::nullopt;
    }
}

/// What follows the transport header, if it is to be found.
std::optional<std::size_t> findPayload(const Bytes &packet, const Transport &transport)
{
    const std::size_t offset = transport.offset;
    const std::size_t remaining = packet.size() - offset;
    if (transport.protocol == tcp && remaining >= 20) {
        const std::size_t headerSize = packet.at(offset + 12) / 16U * 4;
        return headerSize <= remaining ? std::optional(offset + headerSize) : std::nullopt;
    }
    if (transport.protocol == udp && remaining >= 8)
        return offset + 8;
    return packet.at(0) / 16 == 6 || transport.protocol == icmp ? std::optional(offset) : std::nullopt;
}

void checkTransport(const ParsedPacket &parsed, const Bytes &packet, const Transport &transport)
{
    const std::size_t offset = transport.offset;
    const std::size_t remaining = packet.size() - offset;
    const bool isTcp = transport.protocol == tcp && remaining >= 20;
    const bool isUdp = transport.protocol == udp && remaining >= 8;
    FUZZ_CHECK(parsed.protocol == transport.protocol);
    FUZZ_CHECK(parsed.srcPort == (isTcp || isUdp ? get16(packet, offset) : 0));
    FUZZ_CHECK(parsed.dstPort == (isTcp || isUdp ? get16(packet, offset + 2) : 0));
    FUZZ_CHECK(parsed.seq == (isTcp ? get32(packet, offset + 4) : 0));
    FUZZ_CHECK(parsed.ack == (isTcp ? get32(packet, offset + 8) : 0));
    FUZZ_CHECK(parsed.tcpFlags == (isTcp ? packet.at(offset + 13) : 0));
    const std::optional<std::size_t> payload = findPayload(packet, transport);
    FUZZ_CHECK(parsed.payload == (payload ? packet.data() + *payload : nullptr));
    FUZZ_CHECK(parsed.payloadLen == (payload ? packet.size() - *payload : 0));
}

void checkAddresses(const ParsedPacket &parsed, const Bytes &packet)
{
    const bool v4 = parsed.version == 4;
    const std::uint8_t none[16] = {};
    FUZZ_CHECK(parsed.srcIp == (v4 ? get32(packet, 12) : 0));
    FUZZ_CHECK(parsed.dstIp == (v4 ? get32(packet, 16) : 0));
    FUZZ_CHECK(std::memcmp(parsed.srcIp6.data(), v4 ? none : packet.data() + 8, 16) == 0);
    FUZZ_CHECK(std::memcmp(parsed.dstIp6.data(), v4 ? none : packet.data() + 24, 16) == 0);
}

/// Of a valid packet.
bool isPartOfAnother(const Bytes &packet)
{
    if (packet.at(0) / 16 == 4)
        return (get16(packet, 6) & 0x3fff) != 0;
    std::size_t offset = 40;
    std::uint8_t type = packet.at(6);
    while (type == 0 || type == 43 || type == 60) {
        type = packet.at(offset);
        offset += (packet.at(offset + 1) + 1U) * 8 % 256;
    }
    return type == 44 && offset + 4 <= packet.size() && (get16(packet, offset + 2) & 0xfff9) != 0;
}

bool leadsNowhere(const Bytes &packet)
{
    if (packet.at(0) / 16 == 4) {
        return packet.at(16) == 127 || packet.at(16) / 16 == 14 || get16(packet, 16) == 0xa9fe
               || packet.at(19) == 255;
    }
    static const Bytes s_loopback{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return packet.at(24) == 255 || std::memcmp(packet.data() + 24, s_loopback.data(), s_loopback.size()) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Bytes packet(data, data + size); // of exactly this size: the sanitizer sees a read behind it
    const ParsedPacket parsed = ruvo::parsePacket(packet.data(), packet.size());
    FUZZ_CHECK(parsed.raw == packet.data() && parsed.rawLen == packet.size());

    const std::optional<Transport> transport = findTransport(packet);
    FUZZ_CHECK(parsed.valid == transport.has_value());
    if (!transport) {
        FUZZ_CHECK(!parsed.payload && parsed.payloadLen == 0);
        return 0;
    }
    FUZZ_CHECK(parsed.version == packet.at(0) / 16);
    checkAddresses(parsed, packet);
    checkTransport(parsed, packet, *transport);
    FUZZ_CHECK(ruvo::isFragment(parsed) == isPartOfAnother(packet));
    FUZZ_CHECK(ruvo::isUnroutable(parsed) == leadsNowhere(packet));
    return 0;
}
