#include "packet/packet_rewrite.h"

#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace test;

constexpr std::uint32_t seq = 0x89abcdef;
constexpr std::uint32_t ack = 0xfedcba98;

/// Towards the listener: from tunnel address + 1 to the tunnel address.
Endpoints listenerEnds()
{
    return {.srcIp = 0x0a060702, .srcPort = 30007, .dstIp = 0x0a060701, .dstPort = 51234};
}

bool rewrite(Bytes &packet, const Endpoints &ends)
{
    return rewriteTcpAddresses(packet.data(), packet.size(), ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort);
}

void expectRefused(const Bytes &packet, const char *why)
{
    Bytes copy = packet;
    EXPECT_FALSE(rewrite(copy, listenerEnds())) << why;
    EXPECT_EQ(copy, packet) << why;
}

TEST(RewriteTcpAddresses, makesThePacketThatTheReferenceBuildsWithTheNewAddresses)
{
    for (std::size_t size = 0; size <= 1600; ++size) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        const Bytes options = patternBytes(size % 11 * 4, 5);
        Bytes packet = referenceTcpPacket({}, seq, ack, 0x18, options, payload, 99);
        ASSERT_TRUE(rewrite(packet, listenerEnds())) << size;
        ASSERT_EQ(packet, referenceTcpPacket(listenerEnds(), seq, ack, 0x18, options, payload, 99)) << size;
    }
}

TEST(RewriteTcpAddresses, keepsAllFlags)
{
    for (unsigned value = 0; value < 256; ++value) {
        const auto flags = static_cast<std::uint8_t>(value);
        Bytes packet = referenceTcpPacket({}, seq, ack, flags, {}, {1, 2, 3}, 99);
        ASSERT_TRUE(rewrite(packet, listenerEnds()));
        ASSERT_EQ(packet, referenceTcpPacket(listenerEnds(), seq, ack, flags, {}, {1, 2, 3}, 99)) << value;
    }
}

TEST(RewriteTcpAddresses, undoesItselfWithTheOldAddresses)
{
    const Bytes original = referenceTcpPacket({}, seq, ack, 0x02, synOptions(), {}, 99);
    Bytes packet = original;
    ASSERT_TRUE(rewrite(packet, listenerEnds()));
    EXPECT_NE(packet, original);
    ASSERT_TRUE(rewrite(packet, {}));
    EXPECT_EQ(packet, original);
}

TEST(RewriteTcpAddresses, computesChecksumsAnewThatWereWrong)
{
    Bytes packet = referenceTcpPacket({}, seq, ack, 0x10, {}, {1, 2, 3}, 99);
    put16(packet, 10, 0xdead);
    put16(packet, 36, 0xbeef);
    ASSERT_TRUE(rewrite(packet, listenerEnds()));
    EXPECT_EQ(packet, referenceTcpPacket(listenerEnds(), seq, ack, 0x10, {}, {1, 2, 3}, 99));
}

TEST(RewriteTcpAddresses, leavesAZeroTcpChecksumZero)
{
    Bytes payload = {0, 0};
    Bytes packet = referenceTcpPacket(listenerEnds(), seq, ack, 0x10, {}, payload, 99);
    payload.clear();
    append16(payload, get16(packet, 36));
    packet = referenceTcpPacket({}, seq, ack, 0x10, {}, payload, 99);
    ASSERT_TRUE(rewrite(packet, listenerEnds()));
    EXPECT_EQ(get16(packet, 36), 0U);
}

TEST(RewriteTcpAddresses, endsThePayloadAtTheTotalLengthOfIpv4)
{
    const Bytes behind = patternBytes(23);
    Bytes packet = concat({referenceTcpPacket({}, seq, ack, 0x10, {}, {1, 2, 3}, 99), behind});
    ASSERT_TRUE(rewrite(packet, listenerEnds()));
    EXPECT_EQ(packet, concat({referenceTcpPacket(listenerEnds(), seq, ack, 0x10, {}, {1, 2, 3}, 99), behind}));
}

TEST(RewriteTcpAddresses, worksAtAnyAddress)
{
    const Bytes original = referenceTcpPacket({}, seq, ack, 0x10, {}, patternBytes(77), 99);
    const Bytes expected = referenceTcpPacket(listenerEnds(), seq, ack, 0x10, {}, patternBytes(77), 99);
    for (std::size_t offset = 0; offset < 32; ++offset) {
        Bytes room = concat({Bytes(offset), original});
        const Endpoints ends = listenerEnds();
        ASSERT_TRUE(rewriteTcpAddresses(room.data() + offset, original.size(), ends.srcIp, ends.srcPort, ends.dstIp,
                                        ends.dstPort));
        ASSERT_EQ(room, concat({Bytes(offset), expected})) << offset;
    }
}

TEST(RewriteTcpAddresses, refusesWhatIsNoIpv4TcpPacketOfFortyBytes)
{
    const Bytes packet = referenceTcpPacket({}, seq, ack, 0x10, {}, {}, 99);
    for (std::size_t size = 0; size < 40; ++size)
        expectRefused(Bytes(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(size)), "too short");
    Bytes fitting(packet.begin(), packet.begin() + 39); // whose lengths fit into its 39 bytes
    put16(fitting, 2, 39);
    fitting[32] = 0x40;
    expectRefused(fitting, "one byte too short");
    expectRefused(referenceUdpPacket({}, patternBytes(40), 99), "UDP");
    for (unsigned value = 0; value < 256; ++value) {
        Bytes other = packet;
        other[9] = static_cast<std::uint8_t>(value);
        if (value != 6)
            expectRefused(other, "another protocol");
    }
    for (unsigned version = 0; version < 16; ++version) {
        Bytes other = concat({packet, Bytes(20)});
        other[0] = static_cast<std::uint8_t>(version << 4 | 5);
        other[6] = 6;
        if (version != 4)
            expectRefused(other, "another version");
    }
}

TEST(RewriteTcpAddresses, refusesATotalLengthBeyondTheBuffer)
{
    Bytes packet = referenceTcpPacket({}, seq, ack, 0x10, {}, {1, 2, 3}, 99);
    put16(packet, 2, 44);
    expectRefused(packet, "one byte too many");
    put16(packet, 2, 65535);
    expectRefused(packet, "the largest");
}

TEST(RewriteTcpAddresses, refusesHeadersBeyondTheTotalLengthOrTheBuffer)
{
    Bytes packet = referenceTcpPacket({}, seq, ack, 0x10, {}, {1, 2, 3}, 99);
    packet[32] = 0x60;
    expectRefused(packet, "TCP header");
    packet[32] = 0x50;
    packet[0] = 0x46;
    expectRefused(packet, "IP header");
    packet[0] = 0x45;
    put16(packet, 2, 39);
    expectRefused(packet, "total length");
    put16(packet, 2, 0);
    expectRefused(packet, "no total length");
    // Read at its fixed place, this TCP header would leave the buffer although IP header + TCP header fit.
    packet = Bytes(40);
    packet[0] = 0x40;
    packet[9] = 6;
    packet[32] = 0xa0;
    put16(packet, 2, 40);
    expectRefused(packet, "TCP header at its fixed place");
}

// The places behind an IP header without options are used for ports, data offset and checksum, while the payload is
// looked for behind the header's real length.
TEST(RewriteTcpAddresses, takesThePlacesBehindAnIpHeaderWithoutOptionsEvenWhenThereAreSome)
{
    Bytes packet = patternBytes(80);
    packet[0] = 0x46;
    packet[9] = 6;
    packet[32] = 0x50;
    put16(packet, 2, 80);
    Bytes expected = packet;
    const Endpoints ends = listenerEnds();
    const Bytes addresses = referencePseudoHeader(ends.srcIp, ends.dstIp, 6, 20 + (80 - 44));
    std::copy(addresses.begin(), addresses.begin() + 8, expected.begin() + 12);
    put16(expected, 20, ends.srcPort);
    put16(expected, 22, ends.dstPort);
    put16(expected, 36, 0);
    const Bytes header(expected.begin() + 20, expected.begin() + 40);
    const Bytes payload(expected.begin() + 44, expected.end());
    put16(expected, 36, referenceChecksum(concat({addresses, header, payload})));
    put16(expected, 10, 0);
    put16(expected, 10, referenceChecksum(Bytes(expected.begin(), expected.begin() + 24)));

    ASSERT_TRUE(rewrite(packet, ends));
    EXPECT_EQ(packet, expected);
}

TEST(RewriteTcpAddresses, believesADataOffsetBelowTwentyBytes)
{
    for (std::size_t words = 0; words < 5; ++words) {
        Bytes packet = referenceTcpPacket({}, seq, ack, 0x10, {}, patternBytes(9), 99);
        packet[32] = static_cast<std::uint8_t>(words << 4);
        Bytes expected = packet;
        ASSERT_TRUE(rewrite(packet, listenerEnds()));

        // Header and payload are one stretch of bytes all the same.
        const Endpoints ends = listenerEnds();
        const Bytes pseudo = referencePseudoHeader(ends.srcIp, ends.dstIp, 6, expected.size() - 20);
        std::copy(pseudo.begin(), pseudo.begin() + 8, expected.begin() + 12);
        put16(expected, 20, ends.srcPort);
        put16(expected, 22, ends.dstPort);
        put16(expected, 36, 0);
        put16(expected, 36, referenceChecksum(concat({pseudo, Bytes(expected.begin() + 20, expected.end())})));
        put16(expected, 10, 0);
        put16(expected, 10, referenceChecksum(Bytes(expected.begin(), expected.begin() + 20)));
        EXPECT_EQ(packet, expected) << words;
    }
}

} // namespace
} // namespace ruvo
