#include "packet/packet_filter.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace ruvo {
namespace {

constexpr std::uint8_t hopByHop = 0;
constexpr std::uint8_t routing = 43;
constexpr std::uint8_t fragment = 44;
constexpr std::uint8_t noNext = 59;
constexpr std::uint8_t destinationOptions = 60;

PacketBytes ipv4Datagram(std::uint32_t destination)
{
    return buildUdpPacket(0x0A060701, 5000, destination, 53, nullptr, 0);
}

/// An IPv6 packet without payload, its extension headers of eight bytes each in this order.
PacketBytes ipv6Packet(std::initializer_list<std::uint8_t> headers)
{
    PacketBytes packet(40 + 8 * headers.size());
    packet[0] = 0x60;
    packet[24] = 0x20;
    std::size_t link = 6; // where the kind of the next header stands
    std::size_t at = 40;
    for (const std::uint8_t header : headers) {
        packet[link] = header;
        link = at;
        at += 8;
    }
    packet[link] = noNext;
    return packet;
}

bool isFragment(const PacketBytes &packet)
{
    const ParsedPacket parsed = parsePacket(packet.data(), packet.size());
    EXPECT_TRUE(parsed.valid);
    return ruvo::isFragment(parsed);
}

PacketBytes withFragmentField(std::uint8_t high, std::uint8_t low)
{
    PacketBytes packet = ipv4Datagram(0x5DB8D822);
    packet[6] = high;
    packet[7] = low;
    return packet;
}

TEST(PacketFilter, takesEveryPartOfAnIpv4PacketForAFragment)
{
    EXPECT_FALSE(isFragment(withFragmentField(0x00, 0x00)));
    EXPECT_FALSE(isFragment(withFragmentField(0x40, 0x00))) << "don't fragment";
    EXPECT_FALSE(isFragment(withFragmentField(0x80, 0x00))) << "a reserved bit";
    EXPECT_TRUE(isFragment(withFragmentField(0x20, 0x00))) << "the first";
    EXPECT_TRUE(isFragment(withFragmentField(0x20, 0x01))) << "one in the middle";
    EXPECT_TRUE(isFragment(withFragmentField(0x00, 0x01))) << "the last";
    EXPECT_TRUE(isFragment(withFragmentField(0x01, 0x00))) << "the last, at an offset of 2048 bytes";
    EXPECT_TRUE(isFragment(withFragmentField(0x1F, 0xFF)));
}

TEST(PacketFilter, takesEveryPartOfAnIpv6PacketForAFragment)
{
    PacketBytes packet = ipv6Packet({fragment});
    EXPECT_FALSE(isFragment(packet)) << "a whole packet in a fragment header";
    packet[43] = 0x01;
    EXPECT_TRUE(isFragment(packet)) << "the first";
    packet[43] = 0x08;
    EXPECT_TRUE(isFragment(packet)) << "the last, at an offset of 8 bytes";
    packet[43] = 0x00;
    packet[42] = 0x01;
    EXPECT_TRUE(isFragment(packet)) << "the last, at an offset of 256 bytes";
    packet[42] = 0x00;
    packet[43] = 0x06;
    EXPECT_FALSE(isFragment(packet)) << "reserved bits";
}

TEST(PacketFilter, findsTheFragmentHeaderBehindOtherOnes)
{
    for (const std::uint8_t before : {hopByHop, routing, destinationOptions}) {
        PacketBytes packet = ipv6Packet({before, fragment});
        packet[51] = 0x01;
        EXPECT_TRUE(isFragment(packet)) << int{before};
        packet[51] = 0x00;
        EXPECT_FALSE(isFragment(packet)) << int{before};
    }
    PacketBytes packet = ipv6Packet({hopByHop, routing, destinationOptions, fragment});
    packet[67] = 0x01;
    EXPECT_TRUE(isFragment(packet));
}

TEST(PacketFilter, goesByTheLengthOfEachHeader)
{
    PacketBytes packet = ipv6Packet({hopByHop, routing, fragment});
    packet[41] = 1; // the first header takes the place of the second
    packet[40] = fragment;
    packet[59] = 0x01;
    EXPECT_TRUE(isFragment(packet));
    packet[59] = 0x00;
    EXPECT_FALSE(isFragment(packet));
}

// A step is counted in eight bits: 264 bytes are 8.
TEST(PacketFilter, wrapsALengthAsTheParserDoes)
{
    PacketBytes packet = ipv6Packet({hopByHop, fragment});
    packet[41] = 32;
    packet[51] = 0x01;
    EXPECT_TRUE(isFragment(packet));
    packet[51] = 0x00;
    EXPECT_FALSE(isFragment(packet));
}

TEST(PacketFilter, doesNotReadBehindAFragmentHeaderThatIsCutShort)
{
    // A length that wraps to no bytes makes the packet valid though it ends within the header. Its memory ends there
    // too; what follows it in `whole` says that it is a fragment.
    PacketBytes whole = ipv6Packet({fragment});
    whole[41] = 31;
    whole[42] = 0xFF;
    whole[43] = 0xFF;
    EXPECT_TRUE(isFragment(whole));
    for (const std::ptrdiff_t size : {42, 43}) {
        PacketBytes exact(whole.begin(), whole.begin() + size);
        exact.shrink_to_fit();
        EXPECT_FALSE(isFragment(exact)) << size;
        const ParsedPacket prefix = parsePacket(whole.data(), static_cast<std::size_t>(size));
        EXPECT_TRUE(prefix.valid);
        EXPECT_FALSE(ruvo::isFragment(prefix)) << size;
    }
}

TEST(PacketFilter, packetsWithoutAFragmentHeaderAreWhole)
{
    EXPECT_FALSE(isFragment(ipv6Packet({})));
    EXPECT_FALSE(isFragment(ipv6Packet({hopByHop, routing, destinationOptions})));
}

TEST(PacketFilter, knowsLoopbackOfIpv6ByAllItsBytes)
{
    for (std::size_t other = 0; other < 16; ++other) {
        PacketBytes packet = ipv6Packet({});
        packet[24] = 0;
        packet[39] = 1;
        EXPECT_TRUE(isUnroutable(parsePacket(packet.data(), packet.size())));
        packet[24 + other] ^= 0x10;
        EXPECT_FALSE(isUnroutable(parsePacket(packet.data(), packet.size()))) << other;
    }
}

TEST(PacketFilter, doesNotMindTheSource)
{
    PacketBytes packet = ipv4Datagram(0x5DB8D822);
    packet[12] = 127;
    EXPECT_FALSE(isUnroutable(parsePacket(packet.data(), packet.size())));
}

} // namespace
} // namespace ruvo
