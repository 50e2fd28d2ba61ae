#include "packet/tcp_segment.h"

#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"
#include "unit/packet/packet_expectations.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace ruvo::test {
namespace {

// IPv6, RFC 8200 section 8.1.

Bytes addresses6(std::uint32_t seed = 6)
{
    return patternBytes(32, seed);
}

Bytes ipv6Around(const Bytes &addresses, const Bytes &segment, std::uint8_t nextHeader = protocolTcp)
{
    Bytes packet = {0x60, 0, 0, 0};
    append16(packet, static_cast<std::uint32_t>(segment.size()));
    packet.push_back(nextHeader);
    packet.push_back(64);
    return concat({packet, addresses, segment});
}

/// With the checksum that it has to have between these addresses.
Bytes tcp6(const Bytes &addresses, Bytes segment)
{
    put16(segment, tcpChecksumOffset, 0);
    Bytes pseudoHeader = addresses;
    append32(pseudoHeader, static_cast<std::uint32_t>(segment.size()));
    append32(pseudoHeader, protocolTcp);
    put16(segment, tcpChecksumOffset, referenceChecksum(concat({pseudoHeader, segment})));
    return segment;
}

Bytes plainSegment(const Bytes &payload, const Bytes &options = {})
{
    return referenceTcp({}, 0x89abcdef, 0xfedcba98, 0x18, options, payload);
}

std::optional<TcpSegment> read(const Bytes &packet)
{
    return readTcpSegment(parse(packet));
}

Bytes bytesOf(std::span<const std::uint8_t> span)
{
    return {span.begin(), span.end()};
}

TEST(TcpSegment, fieldsAreRead)
{
    const Bytes packet = referenceTcpPacket({}, 0x01020304, 0xf5f6f7f8, 0x19, synOptions(), {7, 8, 9}, 1);
    const std::optional<TcpSegment> segment = read(packet);
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->seq, 0x01020304U);
    EXPECT_EQ(segment->ack, 0xf5f6f7f8U);
    EXPECT_EQ(segment->flags, 0x19);
    EXPECT_EQ(segment->window, 65535);
    EXPECT_EQ(bytesOf(segment->options), synOptions());
    EXPECT_EQ(bytesOf(segment->payload), (Bytes{7, 8, 9}));
}

TEST(TcpSegment, windowIsReadInNetworkOrder)
{
    Bytes segment = plainSegment({});
    put16(segment, tcpWindowOffset, 0x1234);
    const Bytes packet = ipv6Around(addresses6(), tcp6(addresses6(), segment));
    ASSERT_TRUE(read(packet));
    EXPECT_EQ(read(packet)->window, 0x1234);
}

TEST(TcpSegment, ipv6IsReadLikeIpv4)
{
    const Bytes packet = ipv6Around(addresses6(), tcp6(addresses6(), plainSegment({7, 8, 9}, synOptions())));
    const std::optional<TcpSegment> segment = read(packet);
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->seq, 0x89abcdefU);
    EXPECT_EQ(bytesOf(segment->options), synOptions());
    EXPECT_EQ(bytesOf(segment->payload), (Bytes{7, 8, 9}));
}

TEST(TcpSegment, ipv6BehindAnExtensionHeaderIsRead)
{
    const Bytes hopByHop = {protocolTcp, 0, 1, 4, 0, 0, 0, 0};
    const Bytes packet = ipv6Around(addresses6(), concat({hopByHop, tcp6(addresses6(), plainSegment({1}))}), 0);
    ASSERT_TRUE(read(packet));
    EXPECT_EQ(bytesOf(read(packet)->payload), Bytes{1});
}

TEST(TcpSegment, ipv4OptionsAreSteppedOver)
{
    const Bytes packet = referenceIpv4({}, protocolTcp, tcpSegment(), 1, {1, 1, 1, 0});
    ASSERT_TRUE(read(packet));
    EXPECT_EQ(bytesOf(read(packet)->payload), (Bytes{1, 2, 3}));
}

TEST(TcpSegment, checksumOfEveryLengthIsRight)
{
    for (std::size_t size = 0; size < 200; ++size) {
        const Bytes payload = patternBytes(size, 3);
        EXPECT_TRUE(read(referenceTcpPacket({}, 1, 2, 0x18, {}, payload, 1))) << size;
        EXPECT_TRUE(read(ipv6Around(addresses6(), tcp6(addresses6(), plainSegment(payload))))) << size;
    }
    EXPECT_TRUE(read(referenceTcpPacket({}, 1, 2, 0x18, {}, patternBytes(65'495), 1)));
    EXPECT_TRUE(read(ipv6Around(addresses6(), tcp6(addresses6(), plainSegment(patternBytes(65'515))))));
}

TEST(TcpSegment, randomPacketsAreRight)
{
    std::mt19937 random(5);
    for (int i = 0; i < 3000; ++i) {
        const auto number = [&random] { return static_cast<std::uint32_t>(random()); };
        const Endpoints ends{number(), static_cast<std::uint16_t>(number()), number(),
                             static_cast<std::uint16_t>(number())};
        const Bytes segment =
            referenceTcp(ends, number(), number(), static_cast<std::uint8_t>(number()),
                         patternBytes(number() % 11 * 4, number()), patternBytes(number() % 1461, number()));
        EXPECT_TRUE(read(referenceIpv4(ends, protocolTcp, segment, 1)));
        const Bytes addresses = addresses6(number());
        EXPECT_TRUE(read(ipv6Around(addresses, tcp6(addresses, segment))));
    }
}

// RFC 9293 section 3.1. One bit changes a one's-complement sum always: by a power of two, which is never a multiple
// of 65,535.
void expectEveryFlippedBitRefused(const Bytes &packet, std::size_t from)
{
    ASSERT_TRUE(read(packet));
    for (std::size_t i = from; i < packet.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes flipped = packet;
            flipped[i] = static_cast<std::uint8_t>(flipped[i] ^ 1 << bit);
            EXPECT_FALSE(read(flipped)) << "byte " << i << ", bit " << bit;
        }
    }
}

TEST(TcpSegment, flippedBitOfIpv4IsRefused)
{
    // From the addresses on: what stands before is the IP header's own.
    expectEveryFlippedBitRefused(referenceTcpPacket({}, 1, 2, 0x18, synOptions(), patternBytes(101), 1),
                                 ipv4SourceOffset);
}

TEST(TcpSegment, flippedBitOfIpv6IsRefused)
{
    expectEveryFlippedBitRefused(
        ipv6Around(addresses6(), tcp6(addresses6(), plainSegment(patternBytes(102), synOptions()))),
        ipv6SourceOffset);
}

TEST(TcpSegment, truncatedPacketsAreRefused)
{
    // The last bytes are not zero: the checksum would not miss zeros, but for the length.
    const Bytes packet4 = referenceTcpPacket({}, 1, 2, 0x18, synOptions(), {0, 0, 0, 0}, 1);
    for (std::size_t size = 0; size < packet4.size(); ++size)
        EXPECT_FALSE(read({packet4.begin(), packet4.begin() + static_cast<std::ptrdiff_t>(size)})) << size;
    const Bytes packet6 = ipv6Around(addresses6(), tcp6(addresses6(), plainSegment({0, 0, 0, 0}, synOptions())));
    for (std::size_t size = 0; size < packet6.size(); ++size)
        EXPECT_FALSE(read({packet6.begin(), packet6.begin() + static_cast<std::ptrdiff_t>(size)})) << size;
}

TEST(TcpSegment, missingChecksumIsRefused)
{
    Bytes packet = referenceTcpPacket({}, 1, 2, 0x18, {}, {1, 2, 3}, 1);
    put16(packet, ipv4HeaderSize + tcpChecksumOffset, 0);
    EXPECT_FALSE(read(packet));
}

// RFC 1624 section 3: both forms of zero verify, whatever wrote them.
TEST(TcpSegment, bothFormsOfAZeroChecksumAreTaken)
{
    Bytes segment = referenceTcp({}, 1, 2, 0x10, {}, {0, 0});
    put16(segment, tcpHeaderSize, get16(segment, tcpChecksumOffset));
    for (const std::uint32_t zero : {0U, 0xffffU}) {
        put16(segment, tcpChecksumOffset, zero);
        EXPECT_TRUE(read(referenceIpv4({}, protocolTcp, segment, 1))) << zero;
    }
}

TEST(TcpSegment, headerShorterThanItMayBeIsRefused)
{
    for (std::uint32_t words = 0; words < 5; ++words) {
        Bytes segment = plainSegment({1, 2, 3, 4});
        segment[tcpDataOffsetOffset] = static_cast<std::uint8_t>(words << 4);
        EXPECT_FALSE(read(ipv6Around(addresses6(), tcp6(addresses6(), segment)))) << words;
    }
}

TEST(TcpSegment, headerThatReachesBeyondThePacketIsRefused)
{
    for (std::uint32_t words = 5; words < 16; ++words) {
        Bytes segment = plainSegment(Bytes(20));
        segment[tcpDataOffsetOffset] = static_cast<std::uint8_t>(words << 4);
        EXPECT_EQ(read(ipv6Around(addresses6(), tcp6(addresses6(), segment))).has_value(), words <= 10) << words;
    }
}

TEST(TcpSegment, otherProtocolsAreRefused)
{
    EXPECT_FALSE(read(referenceUdpPacket({}, Bytes(40), 1)));
    EXPECT_FALSE(read(referenceIpv4({}, protocolIcmp, tcpSegment(), 1)));
    EXPECT_FALSE(read({}));
}

// RFC 9293 section 3.2.

TEST(TcpSynOptions, sizeAndScaleAreFound)
{
    const TcpSynOptions options = readSynOptions(synOptions());
    EXPECT_EQ(options.maximumSegmentSize, 1220);
    EXPECT_EQ(options.windowShift, 8);
}

TEST(TcpSynOptions, noneIsNotZero)
{
    const TcpSynOptions options = readSynOptions({});
    EXPECT_FALSE(options.maximumSegmentSize);
    EXPECT_FALSE(options.windowShift);
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 0}).windowShift, 0);
}

TEST(TcpSynOptions, unknownOnesAreSteppedOver)
{
    // Timestamps, an experiment, an option of two bytes, padding.
    const Bytes bytes = {8, 10, 1, 2, 3, 4, 5, 6, 7, 8, 253, 4, 3, 3, 4, 2, 1, 1, 3, 3, 5};
    EXPECT_EQ(readSynOptions(bytes).windowShift, 5);
}

// RFC 7323 section 2.3.
TEST(TcpSynOptions, scaleAbove14CountsAs14)
{
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 14}).windowShift, 14);
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 15}).windowShift, 14);
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 255}).windowShift, 14);
}

TEST(TcpSynOptions, endOfTheListEndsIt)
{
    EXPECT_FALSE(readSynOptions(Bytes{0, 3, 3, 7}).windowShift);
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 7, 0, 3, 3, 9}).windowShift, 7);
}

TEST(TcpSynOptions, whatCannotBeReadEndsTheList)
{
    const std::vector<Bytes> hostile = {
        {2},                 // cut behind the kind
        {3, 3},              // cut behind the length
        {2, 4, 5},           // cut in the value
        {254, 0, 3, 3, 7},   // length 0: would never end
        {254, 1, 3, 3, 7},   // length 1: not even the kind and itself
        {254, 200, 3, 3, 7}, // beyond the end
        {1, 1, 254, 6, 3, 3, 7},
    };
    for (const Bytes &bytes : hostile) {
        EXPECT_FALSE(readSynOptions(bytes).windowShift) << ::testing::PrintToString(bytes);
        EXPECT_FALSE(readSynOptions(bytes).maximumSegmentSize) << ::testing::PrintToString(bytes);
    }
}

TEST(TcpSynOptions, optionOfAnotherLengthIsNotTaken)
{
    const TcpSynOptions options = readSynOptions(Bytes{3, 2, 3, 4, 1, 1, 2, 3, 9, 2, 5, 9, 9, 9});
    EXPECT_FALSE(options.windowShift);
    EXPECT_FALSE(options.maximumSegmentSize);
    EXPECT_EQ(readSynOptions(Bytes{3, 4, 1, 1, 3, 3, 6}).windowShift, 6);
}

TEST(TcpSynOptions, whatStandsBeforeAnUnreadableOneCounts)
{
    EXPECT_EQ(readSynOptions(Bytes{3, 3, 7, 254, 0}).windowShift, 7);
}

TEST(TcpSynOptions, anyBytesAreHarmless)
{
    std::mt19937 random(9);
    for (int i = 0; i < 20'000; ++i) {
        const Bytes bytes = patternBytes(random() % 41, static_cast<std::uint32_t>(random()));
        EXPECT_LE(readSynOptions(bytes).windowShift.value_or(0), 14);
    }
}

} // namespace
} // namespace ruvo::test
