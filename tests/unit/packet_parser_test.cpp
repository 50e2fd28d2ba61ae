#include "tun/packet_parser.h"

#include "tun/packet_headers.h"
#include "unit/packet_reference.h"

#include <gtest/gtest.h>

#include <array>

namespace ruvo {
namespace {

using namespace test;

/// Hop-by-Hop, Routing, Fragment, Destination Options.
constexpr std::array<std::uint8_t, 4> extensionHeaders = {0, 43, 44, 60};

ParsedPacket parse(const Bytes &bytes)
{
    return parsePacket(bytes.data(), bytes.size());
}

/// "No transport fields": what the parser leaves as it was zeroed.
void expectNoTransport(const ParsedPacket &packet)
{
    EXPECT_EQ(packet.srcPort, 0);
    EXPECT_EQ(packet.dstPort, 0);
    EXPECT_EQ(packet.seq, 0U);
    EXPECT_EQ(packet.ack, 0U);
    EXPECT_EQ(packet.tcpFlags, 0);
}

void expectNoPayload(const ParsedPacket &packet)
{
    EXPECT_EQ(packet.payload, nullptr);
    EXPECT_EQ(packet.payloadLen, 0U);
}

void expectPayloadAt(const ParsedPacket &packet, std::size_t offset)
{
    ASSERT_NE(packet.payload, nullptr);
    EXPECT_EQ(packet.payload, packet.raw + offset);
    EXPECT_EQ(packet.payloadLen, packet.rawLen - offset);
}

Bytes tcpPacket(const Bytes &payload = {}, const Bytes &options = {})
{
    return referenceTcpPacket({}, 0x89abcdef, 0xfedcba98, 0x18, options, payload, 7);
}

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

Bytes tcpSegment(const Bytes &payload = {1, 2, 3})
{
    return referenceTcp({}, 0x89abcdef, 0xfedcba98, 0x18, {}, payload);
}

void expectTcpFields(const ParsedPacket &packet)
{
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.protocol, protocolTcp);
    EXPECT_EQ(packet.srcPort, Endpoints().srcPort);
    EXPECT_EQ(packet.dstPort, Endpoints().dstPort);
    EXPECT_EQ(packet.seq, 0x89abcdefU);
    EXPECT_EQ(packet.ack, 0xfedcba98U);
    EXPECT_EQ(packet.tcpFlags, 0x18);
}

TEST(ParsePacket, refusesEverythingBelowTwentyBytes)
{
    for (std::size_t size = 0; size < 20; ++size) {
        const Bytes bytes(size, 0x45);
        const ParsedPacket packet = parse(bytes);
        EXPECT_FALSE(packet.valid);
        EXPECT_EQ(packet.version, 0);
        EXPECT_EQ(packet.raw, bytes.data());
        EXPECT_EQ(packet.rawLen, size);
        expectNoTransport(packet);
        expectNoPayload(packet);
    }
    EXPECT_FALSE(parsePacket(nullptr, 0).valid);
}

TEST(ParsePacket, refusesEveryVersionButFourAndSix)
{
    for (unsigned version = 0; version < 16; ++version) {
        Bytes bytes = concat({tcpPacket(), Bytes(60)});
        bytes[0] = static_cast<std::uint8_t>(version << 4 | 5);
        const ParsedPacket packet = parse(bytes);
        EXPECT_EQ(packet.valid, version == 4 || version == 6) << version;
        EXPECT_EQ(packet.version, version);
    }
}

TEST(ParsePacket, readsATcpPacketInHostOrder)
{
    const Bytes bytes = tcpPacket({1, 2, 3});
    const ParsedPacket packet = parse(bytes);
    expectTcpFields(packet);
    EXPECT_EQ(packet.version, 4);
    EXPECT_EQ(packet.srcIp, 0x0a060701U);
    EXPECT_EQ(packet.dstIp, 0xc6336407U);
    EXPECT_EQ(packet.srcIp6, (std::array<std::uint8_t, 16>{}));
    EXPECT_EQ(packet.dstIp6, (std::array<std::uint8_t, 16>{}));
    EXPECT_EQ(packet.raw, bytes.data());
    EXPECT_EQ(packet.rawLen, 43U);
    expectPayloadAt(packet, 40);
}

TEST(ParsePacket, findsThePayloadBehindIpAndTcpOptions)
{
    const Bytes tcpOptions = patternBytes(40);
    const Bytes ipOptions = patternBytes(12);
    const Bytes segment = referenceTcp({}, 0x89abcdef, 0xfedcba98, 0x18, tcpOptions, {1, 2, 3, 4, 5});
    const Bytes bytes = referenceIpv4({}, 6, segment, 1, ipOptions);
    const ParsedPacket packet = parse(bytes);
    expectTcpFields(packet);
    expectPayloadAt(packet, 20 + 12 + 20 + 40);
}

TEST(ParsePacket, givesAnEmptyPayloadToATcpPacketThatEndsWithItsHeader)
{
    const Bytes bytes = tcpPacket();
    expectPayloadAt(parse(bytes), 40);
}

TEST(ParsePacket, readsEveryCombinationOfTcpFlags)
{
    for (unsigned flags = 0; flags < 256; ++flags) {
        const Bytes bytes = referenceTcpPacket({}, 1, 2, static_cast<std::uint8_t>(flags), {}, {}, 0);
        ASSERT_EQ(parse(bytes).tcpFlags, flags);
    }
}

TEST(ParsePacket, readsTheTransportOfEveryIpv4HeaderLength)
{
    for (std::size_t words = 5; words < 16; ++words) {
        const Bytes bytes = referenceIpv4({}, 6, tcpSegment(), 1, patternBytes((words - 5) * 4));
        const ParsedPacket packet = parse(bytes);
        expectTcpFields(packet);
        expectPayloadAt(packet, words * 4 + 20);
    }
}

// The header length is believed even below 20: the transport header then overlaps the IP header.
TEST(ParsePacket, takesAnIpv4HeaderShorterThanTwentyBytesAsItClaimsToBe)
{
    for (std::size_t words = 0; words < 5; ++words) {
        Bytes bytes = patternBytes(64);
        bytes[0] = static_cast<std::uint8_t>(0x40 + words);
        bytes[9] = protocolUdp;
        const ParsedPacket packet = parse(bytes);
        ASSERT_TRUE(packet.valid) << words;
        EXPECT_EQ(packet.srcPort, get16(bytes, words * 4));
        EXPECT_EQ(packet.dstPort, get16(bytes, words * 4 + 2));
        expectPayloadAt(packet, words * 4 + 8);
    }
}

TEST(ParsePacket, refusesAnIpv4HeaderLongerThanTheBuffer)
{
    for (std::size_t words = 6; words < 16; ++words) {
        Bytes bytes(words * 4);
        bytes[0] = static_cast<std::uint8_t>(0x40 + words);
        EXPECT_TRUE(parse(bytes).valid) << words;
        bytes.pop_back();
        EXPECT_FALSE(parse(bytes).valid) << words;
    }
}

TEST(ParsePacket, ignoresTheTotalLengthOfIpv4)
{
    for (const std::uint32_t totalLength : {0U, 20U, 41U, 65535U}) {
        Bytes bytes = tcpPacket({1, 2, 3});
        put16(bytes, 2, totalLength);
        const ParsedPacket packet = parse(bytes);
        expectTcpFields(packet);
        expectPayloadAt(packet, 40);
    }
}

TEST(ParsePacket, acceptsATcpHeaderCutShortWithoutItsFields)
{
    const Bytes whole = tcpPacket();
    for (std::size_t size = 20; size < 40; ++size) {
        const Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        const ParsedPacket packet = parse(bytes);
        EXPECT_TRUE(packet.valid) << size;
        EXPECT_EQ(packet.protocol, protocolTcp);
        EXPECT_EQ(packet.srcIp, 0x0a060701U);
        expectNoTransport(packet);
        expectNoPayload(packet);
    }
}

TEST(ParsePacket, readsTheFieldsButNoPayloadWhenTheDataOffsetLiesBeyondTheBuffer)
{
    for (std::size_t words = 0; words < 16; ++words) {
        Bytes bytes = tcpPacket({1, 2, 3, 4, 5}); // 25 bytes of TCP
        bytes[32] = static_cast<std::uint8_t>(words << 4);
        const ParsedPacket packet = parse(bytes);
        expectTcpFields(packet);
        if (words * 4 <= 25)
            expectPayloadAt(packet, 20 + words * 4);
        else
            expectNoPayload(packet);
    }
}

TEST(ParsePacket, readsUdpAndLetsTheBufferWinOverTheLengthField)
{
    for (const std::uint32_t length : {0U, 8U, 11U, 12U, 65535U}) {
        Bytes bytes = referenceUdpPacket({}, {1, 2, 3}, 0);
        put16(bytes, 24, length);
        const ParsedPacket packet = parse(bytes);
        EXPECT_TRUE(packet.valid);
        EXPECT_EQ(packet.protocol, protocolUdp);
        EXPECT_EQ(packet.srcPort, Endpoints().srcPort);
        EXPECT_EQ(packet.dstPort, Endpoints().dstPort);
        EXPECT_EQ(packet.seq, 0U);
        expectPayloadAt(packet, 28);
        EXPECT_EQ(packet.payloadLen, 3U);
    }
}

TEST(ParsePacket, acceptsAUdpHeaderCutShortWithoutItsPorts)
{
    const Bytes whole = referenceUdpPacket({}, {}, 0);
    for (std::size_t size = 20; size < 28; ++size) {
        const Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        const ParsedPacket packet = parse(bytes);
        EXPECT_TRUE(packet.valid) << size;
        expectNoTransport(packet);
        expectNoPayload(packet);
    }
    expectPayloadAt(parse(whole), 28);
}

TEST(ParsePacket, givesIcmpWhatFollowsTheIpHeader)
{
    const Bytes echo = referenceIpv4({}, protocolIcmp, {8, 0, 0xf7, 0xff, 0, 0, 0, 0}, 0);
    const ParsedPacket packet = parse(echo);
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.protocol, protocolIcmp);
    expectNoTransport(packet);
    expectPayloadAt(packet, 20);

    const Bytes empty = referenceIpv4({}, protocolIcmp, {}, 0);
    expectPayloadAt(parse(empty), 20);
}

TEST(ParsePacket, acceptsEveryOtherProtocolWithoutPortsAndPayload)
{
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == protocolIcmp || protocol == protocolTcp || protocol == protocolUdp)
            continue;
        const Bytes bytes = referenceIpv4({}, static_cast<std::uint8_t>(protocol), patternBytes(40), 0);
        const ParsedPacket packet = parse(bytes);
        ASSERT_TRUE(packet.valid) << protocol;
        ASSERT_EQ(packet.protocol, protocol);
        ASSERT_EQ(packet.srcIp, 0x0a060701U);
        expectNoTransport(packet);
        expectNoPayload(packet);
    }
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
        const Bytes bytes = ipv6(0, concat({extension(60, 1, 16), extension(43, length, size), extension(6, 0, 8),
                                            tcpSegment()}));
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
        Bytes bytes = ipv6(0, extension(59, 1, 16));
        bytes.resize(40 + present);
        EXPECT_FALSE(parse(bytes).valid) << present;
    }
    const Bytes whole = ipv6(0, extension(59, 1, 16));
    expectPayloadAt(parse(whole), 56);
}

TEST(ParsePacketIpv6, givesEverythingElseAPayloadFromWhereItStands)
{
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (protocol == 0 || protocol == 43 || protocol == 44 || protocol == 60 || protocol == protocolTcp
            || protocol == protocolUdp)
            continue;
        const Bytes bytes = ipv6(60, concat({extension(static_cast<std::uint8_t>(protocol), 0, 8), patternBytes(24)}));
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
