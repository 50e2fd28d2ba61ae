#include "unit/packet/packet_expectations.h"

#include <array>

namespace ruvo {
namespace {

using namespace test;

/// Hop-by-Hop, Routing, Fragment, Destination Options.
constexpr std::array<std::uint8_t, 4> extensionHeaders = {0, 43, 44, 60};

/// An IPv6 packet (RFC 8200) of `nextHeader` and all that follows the IPv6 header. The length field stays 0.
Bytes ipv6(std::uint8_t nextHeader, const Bytes &rest)
{
    Bytes header = {0x60, 0, 0, 0, 0, 0, nextHeader, 64};
    for (int i = 1; i <= 32; ++i)
        header.push_back(static_cast<std::uint8_t>(i)); // 1…16 the source, 17…32 the destination
    return concat({header, rest});
}

/// An extension header of `size` bytes whose own length byte is `lengthByte`.
Bytes extension(std::uint8_t nextHeader, std::uint8_t lengthByte, std::size_t size)
{
    Bytes header(size, 0xee);
    header.at(0) = nextHeader;
    header.at(1) = lengthByte;
    return header;
}

TEST(ParsePacketIpv6, refusesAHeaderThatIsCutShort)
{
    const Bytes whole = ipv6(59, {});
    for (std::size_t size = 20; size < 40; ++size)
        EXPECT_FALSE(parsePacket(whole.data(), size).valid) << size;
    EXPECT_TRUE(parse(whole).valid);
}

TEST(ParsePacketIpv6, readsTcpBehindThePlainHeader)
{
    const Bytes bytes = ipv6(6, tcpSegment());
    const ParsedPacket packet = parse(bytes);
    expectTcpFields(packet);
    EXPECT_EQ(packet.version, 6);
    EXPECT_EQ(packet.srcIp, 0U);
    EXPECT_EQ(packet.dstIp, 0U);
    EXPECT_EQ(packet.srcIp6.front(), 1);
    EXPECT_EQ(packet.srcIp6.back(), 16);
    EXPECT_EQ(packet.dstIp6.front(), 17);
    EXPECT_EQ(packet.dstIp6.back(), 32);
    expectPayloadAt(packet, 60);
}

TEST(ParsePacketIpv6, readsUdpBehindThePlainHeader)
{
    const Bytes bytes = ipv6(17, {0x9c, 0x41, 0x00, 0x35, 0xff, 0xff, 0, 0, 'd', 'n', 's'});
    const ParsedPacket packet = parse(bytes);
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.srcPort, 40001);
    EXPECT_EQ(packet.dstPort, 53);
    expectPayloadAt(packet, 48);
}

TEST(ParsePacketIpv6, stepsOverEachKindOfExtensionHeader)
{
    for (const std::uint8_t kind : extensionHeaders) {
        const Bytes bytes = ipv6(kind, concat({extension(6, 0, 8), tcpSegment()}));
        const ParsedPacket packet = parse(bytes);
        expectTcpFields(packet);
        expectPayloadAt(packet, 68);
    }
}

TEST(ParsePacketIpv6, stepsOverAChainOfExtensionHeadersOfEveryLengthThatFitsEightBits)
{
    for (std::uint8_t length = 0; length < 31; ++length) {
        const std::size_t size = (length + 1U) * 8;
        const Bytes bytes =
            ipv6(0, concat({extension(60, 1, 16), extension(43, length, size), extension(6, 0, 8), tcpSegment()}));
        const ParsedPacket packet = parse(bytes);
        expectTcpFields(packet);
        expectPayloadAt(packet, 40 + 16 + size + 8 + 20);
    }
}

TEST(ParsePacketIpv6, wrapsTheLengthOfAnExtensionHeaderAtEightBits)
{
    // 32: (32 + 1) * 8 = 264, of which 8 are left.
    const Bytes bytes = ipv6(0, concat({extension(6, 32, 8), tcpSegment()}));
    const ParsedPacket packet = parse(bytes);
    expectTcpFields(packet);
    expectPayloadAt(packet, 68);

    // 255: 2048, of which nothing is left, as of 31, 63 and so on.
    for (const std::uint8_t length : Bytes{31, 63, 255}) {
        Bytes overlapping = ipv6(60, tcpSegment());
        overlapping[40] = protocolUdp; // the extension header's own bytes are then read as the transport's
        overlapping[41] = length;
        const ParsedPacket same = parse(overlapping);
        EXPECT_TRUE(same.valid) << int(length);
        EXPECT_EQ(same.protocol, protocolUdp);
        EXPECT_EQ(same.srcPort, protocolUdp << 8 | length);
        expectPayloadAt(same, 48);
    }
}

TEST(ParsePacketIpv6, refusesAStepOfNoBytesToAnotherExtensionHeader)
{
    for (const std::uint8_t from : extensionHeaders) {
        for (const std::uint8_t to : extensionHeaders) {
            const Bytes bytes = ipv6(from, concat({extension(to, 31, 8), tcpSegment()}));
            EXPECT_FALSE(parse(bytes).valid) << int(from) << " to " << int(to);
        }
    }
}

TEST(ParsePacketIpv6, refusesAnExtensionHeaderThatRunsPastTheBuffer)
{
    for (std::size_t present = 0; present < 16; ++present) {
        const Bytes whole = ipv6(0, extension(59, 1, 16));
        EXPECT_FALSE(parsePacket(whole.data(), 40 + present).valid) << present;
    }
    // Its length byte is not there to be read, even if what lies behind the packet would make it a step of nothing.
    const Bytes lengthBehind = ipv6(0, extension(59, 31, 8));
    EXPECT_FALSE(parsePacket(lengthBehind.data(), 41).valid);
    const Bytes whole = ipv6(0, extension(59, 1, 16));
    expectPayloadAt(parse(whole), 56);
}

TEST(ParsePacketIpv6, givesEverythingElseAPayloadFromWhereItStands)
{
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == 0 || protocol == 43 || protocol == 44 || protocol == 60 || protocol == protocolTcp
            || protocol == protocolUdp)
            continue;
        const Bytes bytes =
            ipv6(60, concat({extension(static_cast<std::uint8_t>(protocol), 0, 8), patternBytes(24)}));
        const ParsedPacket packet = parse(bytes);
        ASSERT_TRUE(packet.valid) << protocol;
        ASSERT_EQ(packet.protocol, protocol);
        expectNoTransport(packet);
        expectPayloadAt(packet, 48);
    }
}

TEST(ParsePacketIpv6, givesATransportHeaderCutShortAsPayloadWithoutPorts)
{
    for (std::size_t size = 0; size < 20; ++size) {
        const Bytes bytes = ipv6(6, patternBytes(size));
        const ParsedPacket packet = parse(bytes);
        EXPECT_TRUE(packet.valid);
        expectNoTransport(packet);
        expectPayloadAt(packet, 40);
    }
    for (std::size_t size = 0; size < 8; ++size) {
        const Bytes bytes = ipv6(17, patternBytes(size));
        expectNoTransport(parse(bytes));
        expectPayloadAt(parse(bytes), 40);
    }
}

TEST(ParsePacketIpv6, readsTheFieldsButNoPayloadWhenTheDataOffsetLiesBeyondTheBuffer)
{
    Bytes bytes = ipv6(6, tcpSegment({}));
    bytes[52] = 0x60;
    const ParsedPacket packet = parse(bytes);
    expectTcpFields(packet);
    expectNoPayload(packet);
}

} // namespace
} // namespace ruvo
