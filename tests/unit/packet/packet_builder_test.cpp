#include "packet/packet_builder.h"

#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "support/log_capture.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

namespace ruvo {
namespace {

using namespace test;

constexpr std::uint32_t seq = 0x89abcdef;
constexpr std::uint32_t ack = 0xfedcba98;
constexpr std::size_t longestPayload = 1600;

/// The builders' first lines of a process go to the log; these tests have no use for them.
class PacketBuilder : public ::testing::Test
{
    const LogCapture m_log;
};

using BuildTcpPacket = PacketBuilder;
using BuildUdpPacket = PacketBuilder;

PacketBytes buildTcp(std::uint8_t flags, const std::uint8_t *payload, std::size_t size, const Endpoints &ends = {})
{
    return buildTcpPacket(ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort, seq, ack, flags, payload, size);
}

PacketBytes buildUdp(const std::uint8_t *payload, std::size_t size, const Endpoints &ends = {})
{
    return buildUdpPacket(ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort, payload, size);
}

std::uint16_t identificationOf(const PacketBytes &packet)
{
    return static_cast<std::uint16_t>(get16(packet, 4));
}

Bytes expectedTcp(std::uint8_t flags, const Bytes &payload, std::uint16_t id)
{
    return referenceTcpPacket({}, seq, ack, flags, flags & 0x02 ? synOptions() : Bytes(), payload, id);
}

TEST_F(BuildTcpPacket, writesEachByteOfASynAnswerInItsPlace)
{
    PacketBytes packet = buildTcp(tcpSyn | tcpAck, nullptr, 0);
    ASSERT_EQ(packet.size(), 52U);
    put16(packet, 4, 0); // the identification is random, and the header's checksum follows it
    put16(packet, 10, 0);
    put16(packet, 36, 0);
    const Bytes ip = {0x45, 0, 0, 52, 0, 0, 0x40, 0, 64, 6, 0, 0, 10, 6, 7, 1, 198, 51, 100, 7};
    const Bytes tcp = {0x9c, 0x41, 0x01, 0xbb, 0x89, 0xab, 0xcd, 0xef, 0xfe, 0xdc,
                       0xba, 0x98, 0x80, 0x12, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00};
    const Bytes options = {0x02, 0x04, 0x04, 0xc4, 0x01, 0x03, 0x03, 0x08, 0x01, 0x01, 0x04, 0x02};
    EXPECT_EQ(packet, concat({ip, tcp, options}));
}

TEST_F(BuildTcpPacket, givesAPlainAcknowledgementNoOptions)
{
    const PacketBytes packet = buildTcp(tcpAck, nullptr, 0);
    ASSERT_EQ(packet.size(), 40U);
    EXPECT_EQ(packet[32], 0x50);
    EXPECT_EQ(get16(packet, 34), 65535U);
}

TEST_F(BuildTcpPacket, agreesWithTheReferenceForAllFlags)
{
    const Bytes payload = patternBytes(33);
    for (unsigned value = 0; value < 256; ++value) {
        const auto flags = static_cast<std::uint8_t>(value);
        for (const std::size_t size : {std::size_t{0}, payload.size()}) {
            const PacketBytes packet = buildTcp(flags, payload.data(), size);
            const Bytes part(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size));
            ASSERT_EQ(packet, expectedTcp(flags, part, identificationOf(packet))) << value << ", " << size;
        }
    }
}

TEST_F(BuildTcpPacket, agreesWithTheReferenceForEveryPayloadLength)
{
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        for (const std::uint8_t flags : Bytes{0x18, 0x12}) {
            const PacketBytes packet = buildTcp(flags, payload.data(), size);
            ASSERT_EQ(packet, expectedTcp(flags, payload, identificationOf(packet))) << size;
        }
    }
}

TEST_F(BuildTcpPacket, takesAPayloadFromAnyAddress)
{
    const Bytes room = patternBytes(1500);
    for (std::size_t offset = 0; offset < 64; ++offset) {
        const PacketBytes packet = buildTcp(tcpAck, room.data() + offset, 1001);
        const Bytes payload(room.begin() + static_cast<std::ptrdiff_t>(offset),
                            room.begin() + static_cast<std::ptrdiff_t>(offset) + 1001);
        ASSERT_EQ(packet, expectedTcp(tcpAck, payload, identificationOf(packet))) << offset;
    }
}

TEST_F(BuildTcpPacket, buildsWhatFitsIntoAnIpv4PacketAndNothingLarger)
{
    const Bytes payload = patternBytes(65536);
    const PacketBytes largest = buildTcp(tcpAck, payload.data(), 65495);
    const Bytes part(payload.begin(), payload.begin() + 65495);
    EXPECT_EQ(largest, expectedTcp(tcpAck, part, identificationOf(largest)));
    EXPECT_EQ(largest.size(), 65535U);
    EXPECT_TRUE(buildTcp(tcpAck, payload.data(), 65496).empty());
    EXPECT_EQ(buildTcp(tcpSyn, payload.data(), 65483).size(), 65535U);
    EXPECT_TRUE(buildTcp(tcpSyn, payload.data(), 65484).empty());
    EXPECT_TRUE(buildTcp(tcpAck, payload.data(), static_cast<std::size_t>(-1)).empty());
}

TEST_F(BuildTcpPacket, makesPacketsThatTheParserReadsBack)
{
    const Bytes payload = patternBytes(100);
    const PacketBytes bytes = buildTcp(tcpPsh | tcpAck, payload.data(), payload.size());
    const ParsedPacket packet = parsePacket(bytes.data(), bytes.size());
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.srcIp, Endpoints().srcIp);
    EXPECT_EQ(packet.dstIp, Endpoints().dstIp);
    EXPECT_EQ(packet.srcPort, Endpoints().srcPort);
    EXPECT_EQ(packet.dstPort, Endpoints().dstPort);
    EXPECT_EQ(packet.seq, seq);
    EXPECT_EQ(packet.ack, ack);
    EXPECT_EQ(packet.tcpFlags, tcpPsh | tcpAck);
    EXPECT_EQ(Bytes(packet.payload, packet.payload + packet.payloadLen), payload);
}

TEST_F(BuildUdpPacket, writesEachByteInItsPlace)
{
    const std::uint8_t payload[] = {0xaa, 0xbb, 0xcc};
    PacketBytes packet = buildUdp(payload, sizeof payload);
    put16(packet, 4, 0);
    put16(packet, 10, 0);
    put16(packet, 26, 0);
    const Bytes ip = {0x45, 0, 0, 31, 0, 0, 0x40, 0, 64, 17, 0, 0, 10, 6, 7, 1, 198, 51, 100, 7};
    const Bytes udp = {0x9c, 0x41, 0x01, 0xbb, 0, 11, 0, 0};
    EXPECT_EQ(packet, concat({ip, udp, {0xaa, 0xbb, 0xcc}}));
}

TEST_F(BuildUdpPacket, agreesWithTheReferenceForEveryPayloadLength)
{
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        const PacketBytes packet = buildUdp(payload.data(), size);
        ASSERT_EQ(packet, referenceUdpPacket({}, payload, identificationOf(packet))) << size;
    }
}

TEST_F(BuildUdpPacket, carriesAllOnesWhereTheChecksumComesOutAsZero)
{
    const Bytes zeros = {0, 0};
    Bytes payload;
    append16(payload, get16(buildUdp(zeros.data(), zeros.size()), 26));
    EXPECT_EQ(get16(buildUdp(payload.data(), payload.size()), 26), 0xffffU);
}

TEST_F(BuildUdpPacket, buildsThe65507BytesThatFitAndNoMore)
{
    const Bytes payload = patternBytes(65508);
    const PacketBytes largest = buildUdp(payload.data(), 65507);
    const Bytes part(payload.begin(), payload.begin() + 65507);
    EXPECT_EQ(largest, referenceUdpPacket({}, part, identificationOf(largest)));
    EXPECT_EQ(largest.size(), 65535U);
    EXPECT_TRUE(buildUdp(payload.data(), 65508).empty());
    EXPECT_TRUE(buildUdp(payload.data(), static_cast<std::size_t>(-1)).empty());
}

/// The identifications of `count` packets in a row.
std::vector<std::uint16_t> identifications(int count)
{
    std::vector<std::uint16_t> ids;
    for (int i = 0; i < count; ++i)
        ids.push_back(identificationOf(buildUdp(nullptr, 0)));
    return ids;
}

TEST_F(PacketBuilder, drawsTheIdentificationAtRandomAndDoesNotCount)
{
    const std::vector<std::uint16_t> ids = identifications(4096);
    std::set<int> steps;
    for (std::size_t i = 1; i < ids.size(); ++i)
        steps.insert(ids[i] - ids[i - 1]);
    EXPECT_GT(std::set<std::uint16_t>(ids.begin(), ids.end()).size(), 3500U); // 3969 are to be expected
    EXPECT_GT(steps.size(), 3500U);
    for (int bit = 0; bit < 16; ++bit) {
        const auto ones = std::count_if(ids.begin(), ids.end(), [bit](std::uint16_t id) { return id >> bit & 1; });
        EXPECT_NEAR(static_cast<double>(ones), 2048, 320) << bit; // ten standard deviations
    }
}

TEST_F(PacketBuilder, drawsOtherIdentificationsOnEachThread)
{
    std::vector<std::uint16_t> first;
    std::vector<std::uint16_t> second;
    std::jthread([&] { first = identifications(64); }).join();
    std::jthread([&] { second = identifications(64); }).join();
    EXPECT_NE(first, second);
}

TEST_F(PacketBuilder, buildsRightPacketsOnEightThreadsAtOnce)
{
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (std::uint16_t thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, thread] {
            Endpoints ends;
            ends.srcPort = static_cast<std::uint16_t>(ends.srcPort + thread);
            for (std::size_t i = 0; i < 300; ++i) {
                const Bytes payload = patternBytes(i, thread);
                const PacketBytes tcp = buildTcp(tcpAck, payload.data(), i, ends);
                if (tcp != referenceTcpPacket(ends, seq, ack, tcpAck, {}, payload, identificationOf(tcp)))
                    ++wrong;
                const PacketBytes syn = buildTcp(tcpSyn | tcpAck, nullptr, 0, ends);
                if (syn != referenceTcpPacket(ends, seq, ack, 0x12, synOptions(), {}, identificationOf(syn)))
                    ++wrong;
                const PacketBytes udp = buildUdp(payload.data(), i, ends);
                if (udp != referenceUdpPacket(ends, payload, identificationOf(udp)))
                    ++wrong;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

} // namespace
} // namespace ruvo
