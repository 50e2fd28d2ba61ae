#include "socks5/socks5_messages.h"

#include <gtest/gtest.h>

#include <string>

namespace ruvo::socks5 {
namespace {

Bytes bytes(std::initializer_list<int> values)
{
    Bytes result;
    for (const int value : values)
        result.push_back(static_cast<std::uint8_t>(value));
    return result;
}

Bytes reply(int code, int addressType, std::initializer_list<int> rest)
{
    Bytes result = bytes({5, code, 0, addressType});
    for (const int value : rest)
        result.push_back(static_cast<std::uint8_t>(value));
    return result;
}

TEST(Socks5Messages, greetsWithOneMethodThatAsksForNothing)
{
    EXPECT_EQ(Bytes(greeting.begin(), greeting.end()), bytes({5, 1, 0}));
}

TEST(Socks5Messages, acceptsTheOneMethodThatWasOffered)
{
    EXPECT_TRUE(isMethodAccepted(bytes({5, 0})));
}

TEST(Socks5Messages, refusesEveryOtherMethodAndVersion)
{
    EXPECT_FALSE(isMethodAccepted(bytes({5, 0xFF})));
    EXPECT_FALSE(isMethodAccepted(bytes({5, 2})));
    EXPECT_FALSE(isMethodAccepted(bytes({4, 0})));
    EXPECT_FALSE(isMethodAccepted(bytes({5})));
}

TEST(Socks5Messages, asksForAnAddressInNetworkOrder)
{
    const auto request = connectRequest(0x5DB8D822, 443);
    EXPECT_EQ(Bytes(request.begin(), request.end()), bytes({5, 1, 0, 1, 93, 184, 216, 34, 0x01, 0xBB}));
}

TEST(Socks5Messages, asksForANameWithItsLength)
{
    EXPECT_EQ(connectRequest("a.bc", 80), bytes({5, 1, 0, 3, 4, 'a', '.', 'b', 'c', 0, 80}));
}

TEST(Socks5Messages, aNameOf255BytesHasTheLargestLength)
{
    const auto request = connectRequest(std::string(255, 'x'), 1);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->size(), 7u + 255u);
    EXPECT_EQ((*request)[4], 0xFF);
}

TEST(Socks5Messages, aNameOf256BytesOrNoneIsNoRequest)
{
    EXPECT_FALSE(connectRequest(std::string(256, 'x'), 1));
    EXPECT_FALSE(connectRequest("", 1));
}

TEST(Socks5Messages, asksForAnAssociationWithoutSayingFromWhere)
{
    EXPECT_EQ(Bytes(udpAssociateRequest.begin(), udpAssociateRequest.end()), bytes({5, 3, 0, 1, 0, 0, 0, 0, 0, 0}));
}

TEST(Socks5Messages, aReplyIsAsLongAsItsAddressTypeSays)
{
    EXPECT_EQ(replySize(reply(0, 1, {0, 0, 0, 0, 0, 0})), 10u);
    EXPECT_EQ(replySize(reply(0, 4, {0, 0, 0, 0, 0, 0})), 22u);
    EXPECT_EQ(replySize(reply(0, 3, {9, 0, 0, 0, 0, 0})), 16u);
    EXPECT_EQ(replySize(reply(0, 3, {255, 0, 0, 0, 0, 0})), 262u);
}

TEST(Socks5Messages, aReplyIsNeverShorterThanTheFirstRead)
{
    EXPECT_EQ(replySize(reply(0, 3, {1, 'x', 0, 0, 0, 0})), minReplySize);
    EXPECT_EQ(replySize(reply(0, 77, {0, 0, 0, 0, 0, 0})), minReplySize);
}

TEST(Socks5Messages, everyReplyCodeButZeroIsAFailure)
{
    EXPECT_FALSE(replyFailure(reply(0, 1, {0, 0, 0, 0, 0, 0})));
    for (int code = 1; code <= 255; ++code)
        EXPECT_EQ(replyFailure(reply(code, 1, {0, 0, 0, 0, 0, 0})), code);
}

TEST(Socks5Messages, aReplyOfAnotherVersionIsAFailure)
{
    EXPECT_TRUE(replyFailure(bytes({4, 0, 0, 1, 0, 0, 0, 0, 0, 0})));
}

TEST(Socks5Messages, readsWhereTheProxyTakesDatagrams)
{
    EXPECT_EQ(parseUdpAssociateReply(reply(0, 1, {192, 0, 2, 7, 0x12, 0x34}), 0x7F000001),
              (Endpoint{0xC0000207, 0x1234}));
}

TEST(Socks5Messages, noAddressMeansTheProxysOwn)
{
    EXPECT_EQ(parseUdpAssociateReply(reply(0, 1, {0, 0, 0, 0, 0x12, 0x34}), 0x7F000001),
              (Endpoint{0x7F000001, 0x1234}));
}

TEST(Socks5Messages, anAssociationNeedsAWholeSuccessfulIpv4Reply)
{
    EXPECT_FALSE(parseUdpAssociateReply(reply(0, 1, {0, 0, 0, 0, 0}), 0));
    EXPECT_FALSE(parseUdpAssociateReply(reply(1, 1, {0, 0, 0, 0, 0, 0}), 0));
    EXPECT_FALSE(parseUdpAssociateReply(reply(0, 4, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 0));
}

TEST(Socks5Messages, aDatagramToIpv4HasAHeaderOfTenBytes)
{
    const Bytes payload = bytes({0xAA, 0xBB});
    EXPECT_EQ(udpDatagram(payload, 0x08080808, 53), bytes({0, 0, 0, 1, 8, 8, 8, 8, 0, 53, 0xAA, 0xBB}));
    EXPECT_EQ(udpDatagram({}, 0x08080808, 53).size(), udpHeaderSizeIpv4);
}

TEST(Socks5Messages, aDatagramToIpv6HasAHeaderOf22Bytes)
{
    Ipv6Address address{};
    address[0] = 0x20;
    address[15] = 0x01;
    const Bytes datagram = udpDatagram(bytes({0xAA}), address, 443);
    ASSERT_EQ(datagram.size(), udpHeaderSizeIpv6 + 1);
    EXPECT_EQ(datagram[3], 4);
    EXPECT_EQ(datagram[4], 0x20);
    EXPECT_EQ(datagram[19], 0x01);
    EXPECT_EQ(datagram[20], 0x01);
    EXPECT_EQ(datagram[21], 0xBB);
    EXPECT_EQ(datagram[22], 0xAA);
}

TEST(Socks5Messages, aReceivedHeaderIsMeasuredByItsAddressType)
{
    EXPECT_EQ(udpHeaderSize(Bytes(10)), std::nullopt) << "address type 0";
    Bytes ipv4(12);
    ipv4[3] = 1;
    EXPECT_EQ(udpHeaderSize(ipv4), 10u);
    Bytes name(20);
    name[3] = 3;
    name[4] = 5;
    EXPECT_EQ(udpHeaderSize(name), 12u);
    Bytes ipv6(22);
    ipv6[3] = 4;
    EXPECT_EQ(udpHeaderSize(ipv6), 22u);
}

TEST(Socks5Messages, aHeaderThatIsCutShortIsNone)
{
    Bytes ipv4(9);
    ipv4[3] = 1;
    EXPECT_FALSE(udpHeaderSize(ipv4));
    Bytes ipv6(21);
    ipv6[3] = 4;
    EXPECT_FALSE(udpHeaderSize(ipv6));
    Bytes name(11);
    name[3] = 3;
    name[4] = 5;
    EXPECT_FALSE(udpHeaderSize(name));
    Bytes noName(9); // 7 bytes would do for it, but no header has less than 10
    noName[3] = 3;
    EXPECT_FALSE(udpHeaderSize(noName));
    EXPECT_FALSE(udpHeaderSize(Bytes(4)));
    EXPECT_FALSE(udpHeaderSize({}));
}

TEST(Socks5Messages, reservedBytesAndFragmentOfAReceivedHeaderDoNotMatter)
{
    Bytes header(10, 0xFF);
    header[3] = 1;
    EXPECT_EQ(udpHeaderSize(header), 10u);
}

} // namespace
} // namespace ruvo::socks5
