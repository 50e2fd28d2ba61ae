#include "packet/packet_stamp.h"

#include "packet/packet_headers.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace ruvo::test {
namespace {

constexpr Endpoints ends;

Bytes build(std::uint32_t seq, std::uint32_t ack, std::uint8_t flags, const Bytes &payload)
{
    return buildTcpPacket(ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort, seq, ack, flags, payload.data(),
                          payload.size());
}

/// What differs between two packets of the same content: the identification, and with it the IP header's checksum.
Bytes tcpOf(const Bytes &packet)
{
    return {packet.begin() + ipv4HeaderSize, packet.end()};
}

TEST(PacketStamp, stampingEqualsBuildingAnew)
{
    std::mt19937 random(17);
    for (int i = 0; i < 20'000; ++i) {
        const auto number = [&random] { return static_cast<std::uint32_t>(random()); };
        const Bytes payload = patternBytes(number() % 200, number());
        const std::uint8_t flags = number() % 4 == 0 ? tcpSyn | tcpAck : tcpPsh | tcpAck;
        Bytes packet = build(number(), number(), flags, payload);
        const Bytes before = packet;
        const std::uint32_t seq = number();
        const std::uint32_t ack = number();
        stampTcpNumbers(packet, seq, ack);
        ASSERT_EQ(tcpOf(packet), tcpOf(build(seq, ack, flags, payload))) << "packet " << i;
        ASSERT_EQ(Bytes(packet.begin(), packet.begin() + ipv4HeaderSize),
                  Bytes(before.begin(), before.begin() + ipv4HeaderSize));
    }
}

// Where one's-complement sums come to 0 in one of their two forms.
TEST(PacketStamp, stampingEqualsBuildingAnewAtTheEdges)
{
    const std::uint32_t edges[] = {0, 1, 0xffff, 0x10000, 0x7fffffff, 0x80000000, 0xffff0000, 0xfffffffe, 0xffffffff};
    // With this payload word the checksum goes all the way round.
    for (std::uint32_t word = 0; word < 0x10000; word += 31) {
        const Bytes payload{static_cast<std::uint8_t>(word >> 8), static_cast<std::uint8_t>(word)};
        for (const std::uint32_t seq : edges) {
            Bytes packet = build(0xffff, 0xffffffff, tcpAck, payload);
            stampTcpNumbers(packet, seq, ~seq);
            ASSERT_EQ(tcpOf(packet), tcpOf(build(seq, ~seq, tcpAck, payload))) << word << ' ' << seq;
        }
    }
}

TEST(PacketStamp, checksumThatComesToZeroIsTheSameBothWays)
{
    const Bytes packet = build(1, 2, tcpAck, {0, 0});
    const std::uint32_t checksum = get16(packet, ipv4HeaderSize + tcpChecksumOffset);
    // The word that brings the sum to its all-ones form, whose complement is 0.
    const Bytes payload{static_cast<std::uint8_t>(checksum >> 8), static_cast<std::uint8_t>(checksum)};
    Bytes stamped = build(0x1234, 0xffff5678, tcpAck, payload);
    stampTcpNumbers(stamped, 1, 2);
    EXPECT_EQ(get16(stamped, ipv4HeaderSize + tcpChecksumOffset), 0U);
    EXPECT_EQ(tcpOf(stamped), tcpOf(build(1, 2, tcpAck, payload)));
}

TEST(PacketStamp, sameNumbersChangeNothing)
{
    Bytes packet = build(5, 6, tcpAck, patternBytes(33));
    const Bytes before = packet;
    stampTcpNumbers(packet, 5, 6);
    EXPECT_EQ(packet, before);
}

TEST(PacketStamp, stampingAgainAndAgainKeepsTheChecksumRight)
{
    Bytes packet = build(0, 0, tcpAck, patternBytes(1460));
    for (std::uint32_t i = 1; i < 1000; ++i)
        stampTcpNumbers(packet, i * 0x01234567, ~i);
    EXPECT_EQ(tcpOf(packet), tcpOf(build(999U * 0x01234567U, ~999U, tcpAck, patternBytes(1460))));
}

} // namespace
} // namespace ruvo::test
