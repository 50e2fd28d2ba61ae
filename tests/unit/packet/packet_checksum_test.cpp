#include "packet/packet_checksum.h"

#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace test;

constexpr std::size_t longestPayload = 1600;
constexpr std::size_t alignments = 16;

/// The bytes at an address that is `offset` behind one that is divisible by 64.
class AtOffset
{
public:
    AtOffset(const Bytes &bytes, std::size_t offset) : m_room(bytes.size() + 128)
    {
        const auto address = reinterpret_cast<std::uintptr_t>(m_room.data());
        m_start = m_room.data() + (64 - address % 64) + offset;
        std::copy(bytes.begin(), bytes.end(), m_start);
    }
    const std::uint8_t *data() const { return m_start; }

private:
    Bytes m_room;
    std::uint8_t *m_start;
};

std::uint16_t ipChecksumOf(const Bytes &bytes)
{
    return asNumber(ipChecksum(bytes.data(), bytes.size()));
}

TEST(IpChecksum, isThatOfTheExampleInRfc1071)
{
    // Section 3: the sum is 0xddf2.
    EXPECT_EQ(ipChecksumOf({0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7}), 0xffff - 0xddf2);
}

TEST(IpChecksum, ofAnIntactHeaderIsZero)
{
    const Bytes packet = referenceIpv4({}, 6, {}, 0x1234);
    EXPECT_NE(get16(packet, 10), 0U);
    EXPECT_EQ(ipChecksumOf(packet), 0);
}

TEST(IpChecksum, ofNothingIsAllOnes)
{
    EXPECT_EQ(ipChecksum(nullptr, 0), 0xffff);
}

TEST(IpChecksum, liesInMemoryAsInThePacket)
{
    const std::uint8_t word[] = {0x12, 0x34};
    std::uint8_t stored[2] = {};
    storeChecksum(ipChecksum(word, 2), stored);
    EXPECT_EQ(stored[0], 0xed);
    EXPECT_EQ(stored[1], 0xcb);
}

TEST(IpChecksum, padsAnOddLastByteWithAZeroBehindIt)
{
    EXPECT_EQ(ipChecksumOf({0x12}), 0xffff - 0x1200);
    EXPECT_EQ(ipChecksumOf({0x12, 0x34, 0x56}), 0xffff - (0x1234 + 0x5600));
}

TEST(IpChecksum, agreesWithTheReferenceForEveryLengthAtEveryAlignment)
{
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes bytes = patternBytes(size, static_cast<std::uint32_t>(size));
        const std::uint16_t expected = referenceChecksum(bytes);
        for (std::size_t offset = 0; offset < alignments; ++offset) {
            const AtOffset moved(bytes, offset);
            ASSERT_EQ(asNumber(ipChecksum(moved.data(), size)), expected) << size << " bytes at +" << offset;
        }
    }
}

TEST(IpChecksum, losesNoCarryOfAllOnes)
{
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes ones(size, 0xff);
        ASSERT_EQ(ipChecksumOf(ones), referenceChecksum(ones)) << size;
    }
    for (const std::size_t size : {65534U, 65535U, 65536U, 3U * 1024 * 1024 + 1}) {
        const Bytes ones(size, 0xff);
        ASSERT_EQ(ipChecksumOf(ones), referenceChecksum(ones)) << size;
        Bytes oneSmaller = ones;
        oneSmaller.at(size - 1) = 0xfe;
        ASSERT_EQ(ipChecksumOf(oneSmaller), referenceChecksum(oneSmaller)) << size;
    }
}

TEST(IpChecksum, losesNoCarryOfTheLastFold)
{
    // Half a megabyte of ones and this word: the sum's halves come to 0x1ffff, whose halves come to 0x10000.
    const Bytes bytes = concat({Bytes(0x80000, 0xff), {0, 0, 1, 0}});
    EXPECT_EQ(ipChecksumOf(bytes), referenceChecksum(bytes));
}

/// Cuts the TCP segment behind `headerSize` bytes and computes its checksum with header and payload in separate
/// buffers, each at its own alignment.
std::uint16_t tcpChecksumOf(const Bytes &ipHeader, const Bytes &segment, std::size_t headerSize, std::size_t offset)
{
    const auto cut = segment.begin() + static_cast<std::ptrdiff_t>(headerSize);
    const AtOffset ip(ipHeader, offset);
    const AtOffset header(Bytes(segment.begin(), cut), offset + 3);
    const AtOffset payload(Bytes(cut, segment.end()), offset + 5);
    return asNumber(tcpChecksum(ip.data(), header.data(), payload.data(), segment.size() - headerSize, headerSize));
}

TEST(TcpChecksum, agreesWithTheReferenceForEveryPayloadLengthHeaderLengthAndAlignment)
{
    const Endpoints ends;
    const Bytes ip = referenceIpv4(ends, 6, {}, 0);
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes options = patternBytes(size % 11 * 4, 77);
        const Bytes segment = referenceTcp(ends, 0x89abcdef, 0xfedcba98, 0x18, options,
                                           patternBytes(size, static_cast<std::uint32_t>(size)));
        for (std::size_t offset = 0; offset < alignments; ++offset) {
            ASSERT_EQ(tcpChecksumOf(ip, segment, 20 + options.size(), offset), get16(segment, 16))
                << size << " bytes behind " << options.size() << " of options at +" << offset;
        }
    }
}

TEST(TcpChecksum, takesItsOwnFieldAsZeroAndLeavesItAlone)
{
    const Endpoints ends;
    const Bytes ip = referenceIpv4(ends, 6, {}, 0);
    Bytes segment = referenceTcp(ends, 1, 2, 0x10, {}, {});
    const std::uint32_t expected = get16(segment, 16);
    for (const std::uint32_t held : {0x0000U, 0xffffU, 0x1234U}) {
        put16(segment, 16, held);
        EXPECT_EQ(asNumber(tcpChecksum(ip.data(), segment.data(), nullptr, 0, 20)), expected);
        EXPECT_EQ(get16(segment, 16), held);
    }
}

TEST(TcpChecksum, takesOnlyTheAddressesFromTheIpHeader)
{
    const Endpoints ends;
    Bytes ip = referenceIpv4(ends, 6, {}, 0);
    const Bytes segment = referenceTcp(ends, 1, 2, 0x10, {}, {});
    std::fill(ip.begin(), ip.begin() + 12, std::uint8_t{0xa5});
    EXPECT_EQ(asNumber(tcpChecksum(ip.data(), segment.data(), nullptr, 0, 20)), get16(segment, 16));
}

/// The two bytes of payload that bring everything before them to a sum of 0xffff, and so the checksum to 0.
template<typename Checksum>
Bytes payloadForZero(Checksum checksumWith)
{
    Bytes payload;
    append16(payload, asNumber(checksumWith(Bytes{0, 0})));
    return payload;
}

TEST(TcpChecksum, staysZeroWhenItComesOutAsZero)
{
    const Endpoints ends;
    const Bytes ip = referenceIpv4(ends, 6, {}, 0);
    const Bytes header = referenceTcp(ends, 1, 2, 0x10, {}, {});
    const auto checksumWith = [&](const Bytes &payload) {
        return tcpChecksum(ip.data(), header.data(), payload.data(), payload.size(), header.size());
    };
    EXPECT_EQ(checksumWith(payloadForZero(checksumWith)), 0);
}

TEST(UdpChecksum, becomesAllOnesWhenItComesOutAsZero)
{
    const Endpoints ends;
    const Bytes ip = referenceIpv4(ends, 17, {}, 0);
    Bytes header;
    append16(header, ends.srcPort);
    append16(header, ends.dstPort);
    append16(header, 10);
    append16(header, 0);
    const auto checksumWith = [&](const Bytes &payload) {
        return udpChecksum(ip.data(), header.data(), payload.data(), payload.size());
    };
    EXPECT_EQ(checksumWith(payloadForZero(checksumWith)), 0xffff);
}

TEST(UdpChecksum, agreesWithTheReferenceForEveryPayloadLengthAndAlignment)
{
    const Endpoints ends;
    for (std::size_t size = 0; size <= longestPayload; ++size) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        const Bytes packet = referenceUdpPacket(ends, payload, 0);
        for (std::size_t offset = 0; offset < alignments; ++offset) {
            const AtOffset headers(Bytes(packet.begin(), packet.begin() + 28), offset);
            const AtOffset data(payload, offset + 1);
            ASSERT_EQ(asNumber(udpChecksum(headers.data(), headers.data() + 20, data.data(), size)),
                      get16(packet, 26))
                << size << " bytes at +" << offset;
        }
    }
}

TEST(UdpChecksum, takesItsOwnFieldAsZero)
{
    Bytes packet = referenceUdpPacket({}, {1, 2, 3}, 0);
    const std::uint32_t expected = get16(packet, 26);
    put16(packet, 26, 0xbeef);
    EXPECT_EQ(asNumber(udpChecksum(packet.data(), packet.data() + 20, packet.data() + 28, 3)), expected);
}

} // namespace
} // namespace ruvo
