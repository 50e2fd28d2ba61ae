#include "unit/packet/packet_expectations.h"

#include <array>

namespace ruvo {
namespace {

using namespace test;

Bytes tcpPacket(const Bytes &payload = {}, const Bytes &options = {})
{
    return referenceTcpPacket({}, 0x89abcdef, 0xfedcba98, 0x18, options, payload, 7);
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

} // namespace
} // namespace ruvo
