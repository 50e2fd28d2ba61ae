#include "netcfg/bypass_route_rule.h"

#include "common/ipv4.h"

#include <gtest/gtest.h>

#include <vector>

namespace ruvo {
namespace {

constexpr std::uint32_t original = 4;
constexpr std::uint32_t other = 9;
constexpr std::uint32_t tunnel = 7;
constexpr Ipv4Network tunnelNetwork{0x0A060701, 0xFFFFFFFC};

std::uint32_t address(const char *text)
{
    return parseIpv4(QString(text));
}

MIB_IPFORWARDROW row(const char *destination, const char *mask, const char *nextHop, std::uint32_t interfaceIndex,
                     DWORD metric = 25)
{
    MIB_IPFORWARDROW row{};
    row.dwForwardDest = htonl(address(destination));
    row.dwForwardMask = htonl(address(mask));
    row.dwForwardNextHop = htonl(address(nextHop));
    row.dwForwardIfIndex = interfaceIndex;
    row.dwForwardType = row.dwForwardNextHop == 0 ? MIB_IPROUTE_TYPE_DIRECT : MIB_IPROUTE_TYPE_INDIRECT;
    row.dwForwardMetric1 = metric;
    return row;
}

const MIB_IPFORWARDROW standard = row("0.0.0.0", "0.0.0.0", "192.168.1.1", original);
const MIB_IPFORWARDROW lan = row("192.168.1.0", "255.255.255.0", "0.0.0.0", original);

bool needs(const char *text, const std::vector<MIB_IPFORWARDROW> &rows)
{
    return needsBypassRoute(address(text), rows, original, tunnelNetwork);
}

TEST(BypassRouteRule, whatOnlyADefaultRouteLeadsToNeedsARoute)
{
    EXPECT_TRUE(needs("8.8.8.8", {standard, lan}));
    EXPECT_TRUE(needs("8.8.8.8", {row("0.0.0.0", "0.0.0.0", "0.0.0.0", original)})) << "an on-link one";
    EXPECT_TRUE(needs("8.8.8.8", {row("0.0.0.0", "0.0.0.0", "10.0.0.1", other, 1), standard}));
    EXPECT_TRUE(needs("8.8.8.8", {}));
}

TEST(BypassRouteRule, halvesOfTheAddressSpaceAreDefaultRoutes)
{
    for (const std::uint32_t index : {tunnel, other}) {
        const std::vector<MIB_IPFORWARDROW> rows{standard, row("0.0.0.0", "128.0.0.0", "0.0.0.0", index),
                                                 row("128.0.0.0", "128.0.0.0", "0.0.0.0", index)};
        EXPECT_TRUE(needs("8.8.8.8", rows)) << index;
        EXPECT_TRUE(needs("203.0.113.5", rows)) << index;
    }
    EXPECT_FALSE(needs("8.8.8.8", {standard, row("0.0.0.0", "192.0.0.0", "0.0.0.0", other)})) << "a quarter is none";
}

TEST(BypassRouteRule, thisMachineIsReachedAnyway)
{
    for (const char *text : {"127.0.0.1", "127.255.255.254"})
        EXPECT_FALSE(needs(text, {standard})) << text;
    EXPECT_TRUE(needs("126.255.255.255", {standard}));
    EXPECT_TRUE(needs("128.0.0.1", {standard}));
}

TEST(BypassRouteRule, theTunnelsOwnNetworkIsNotReachedThroughTheGatewayThoughItIsNotListedYet)
{
    for (const char *text : {"10.6.7.0", "10.6.7.1", "10.6.7.2", "10.6.7.3"})
        EXPECT_FALSE(needs(text, {standard})) << text;
    EXPECT_TRUE(needs("10.6.7.4", {standard}));
    EXPECT_TRUE(needs("10.6.6.255", {standard}));
    EXPECT_TRUE(needsBypassRoute(address("10.6.7.1"), {}, original, Ipv4Network{})) << "without a tunnel";
    EXPECT_FALSE(needs("10.7.7.2", {standard, row("10.7.7.0", "255.255.255.252", "0.0.0.0", tunnel)})) << "another";
}

TEST(BypassRouteRule, neighboursAreReachedWithoutTheGateway)
{
    EXPECT_FALSE(needs("192.168.1.77", {standard, lan}));
    EXPECT_FALSE(needs("192.168.1.77", {lan, standard}));
    EXPECT_TRUE(needs("192.168.2.77", {standard, lan}));
    // What older systems have for an on-link route: the interface's own address.
    MIB_IPFORWARDROW older = row("192.168.1.0", "255.255.255.0", "192.168.1.20", original);
    older.dwForwardType = MIB_IPROUTE_TYPE_DIRECT;
    EXPECT_FALSE(needs("192.168.1.77", {standard, older}));
    // And one that says it by its next hop alone.
    MIB_IPFORWARDROW nextHopOnly = lan;
    nextHopOnly.dwForwardType = MIB_IPROUTE_TYPE_OTHER;
    EXPECT_FALSE(needs("192.168.1.77", {standard, nextHopOnly}));
}

TEST(BypassRouteRule, anotherInterfaceLeadsToItsNetworks)
{
    EXPECT_FALSE(needs("172.16.0.5", {standard, row("172.16.0.0", "255.240.0.0", "0.0.0.0", other)}));
    EXPECT_FALSE(needs("172.16.0.5", {standard, row("172.16.0.0", "255.240.0.0", "10.9.9.1", other)}));
    EXPECT_FALSE(needs("8.8.8.8", {standard, row("8.8.8.8", "255.255.255.255", "10.9.9.1", other)}));
}

TEST(BypassRouteRule, anotherGatewayOfTheSameInterfaceIsNoOtherWay)
{
    EXPECT_TRUE(needs("172.16.0.5", {standard, row("172.16.0.0", "255.240.0.0", "192.168.1.254", original)}));
}

TEST(BypassRouteRule, theLongestPrefixDecides)
{
    const auto wide = row("172.16.0.0", "255.240.0.0", "0.0.0.0", other, 1);
    const auto narrow = row("172.16.5.0", "255.255.255.0", "192.168.1.254", original, 99);
    EXPECT_TRUE(needs("172.16.5.5", {wide, narrow}));
    EXPECT_TRUE(needs("172.16.5.5", {narrow, wide}));
    EXPECT_FALSE(needs("172.16.6.5", {wide, narrow}));
}

TEST(BypassRouteRule, theLowerMetricDecidesBetweenEqualPrefixes)
{
    const auto here = row("172.16.0.0", "255.240.0.0", "192.168.1.254", original, 30);
    const auto better = row("172.16.0.0", "255.240.0.0", "0.0.0.0", other, 29);
    const auto worse = row("172.16.0.0", "255.240.0.0", "0.0.0.0", other, 31);
    EXPECT_FALSE(needs("172.16.0.5", {here, better}));
    EXPECT_FALSE(needs("172.16.0.5", {better, here}));
    EXPECT_TRUE(needs("172.16.0.5", {here, worse}));
    EXPECT_TRUE(needs("172.16.0.5", {worse, here}));
}

} // namespace
} // namespace ruvo
