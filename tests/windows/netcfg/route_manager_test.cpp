// Routes into the tunnel, and out of it again.

#include "windows/netcfg/route_manager_test.h"

#include "support/qt_printers.h"

namespace ruvo {
namespace {

using test::RouteManagerTest;

TEST_F(RouteManagerTest, knowsItsInterfaceByTheLuid)
{
    m_routes->setInterface(99);
    EXPECT_EQ(m_ipHelper.calls, QStringList{"ConvertInterfaceLuidToIndex 99"});
    EXPECT_TRUE(m_routes->addRoute(0x0A000000, 0xFF000000));
    EXPECT_EQ(m_ipHelper.calls.constLast(), added("10.0.0.0/8 via 0.0.0.0 on luid 99 index 7"));
}

TEST_F(RouteManagerTest, hasNoIndexIfWindowsCannotTell)
{
    m_ipHelper.fail("ConvertInterfaceLuidToIndex", ERROR_INVALID_PARAMETER);
    m_routes->setInterface(99);
    EXPECT_TRUE(m_routes->addRoute(0x0A000000, 0xFF000000));
    EXPECT_EQ(m_ipHelper.calls.constLast(), added("10.0.0.0/8 via 0.0.0.0 on luid 99 index 0"));
}

TEST_F(RouteManagerTest, splitsTheAddressSpaceAndGivesAProxyOnLoopbackNoRoute)
{
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(firstSplit), added(secondSplit)}));
    EXPECT_EQ(m_log.lines(), (QStringList{
                                 "DEBUG Original gateway: \"192.168.1.1\" (ifIndex= 4 )",
                                 "DEBUG Tunnel interface index: 7",
                                 "DEBUG Skipping proxy bypass route for localhost",
                                 "DEBUG Adding split default routes as DIRECT (on-link) routes",
                                 "DEBUG Using CreateIpForwardEntry2 API to add routes...",
                             }));
}

TEST_F(RouteManagerTest, everyAddressOf127IsLoopback)
{
    EXPECT_TRUE(setUp(0x7FFFFFFE));
    EXPECT_EQ(m_ipHelper.calls.size(), 2);
}

TEST_F(RouteManagerTest, aProxyElsewhereKeepsItsWay)
{
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{addedProxyRoute(), added(firstSplit), added(secondSplit)}));
    EXPECT_TRUE(m_log.contains("DEBUG Added proxy bypass route: \"203.0.113.5\" via \"192.168.1.1\""));
    EXPECT_FALSE(m_log.contains("localhost"));
}

TEST_F(RouteManagerTest, aProxyThatIsNoAddressGetsNoRoute)
{
    EXPECT_TRUE(setUp(noProxy));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(firstSplit), added(secondSplit)}));
    EXPECT_FALSE(m_log.contains("localhost"));
}

TEST_F(RouteManagerTest, theGatewayThatIsGivenIsTakenOnTheInterfaceThatWasFound)
{
    EXPECT_TRUE(setUp(proxy, 0x0A0000FE));
    EXPECT_EQ(m_ipHelper.calls.constFirst(), addedProxyRoute("10.0.0.254", 4));
    EXPECT_TRUE(m_log.contains("DEBUG Original gateway: \"10.0.0.254\" (ifIndex= 4 )"));
}

TEST_F(RouteManagerTest, anOnLinkDefaultRouteHasNoGateway)
{
    m_ipHelper.forwardTable = {{"0.0.0.0", "0.0.0.0", "0.0.0.0", 12}};
    m_routes->setBypassAddresses({bypass1});
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls.first(2),
              (QStringList{addedProxyRoute("0.0.0.0", 12), added("1.1.1.1/32 via 0.0.0.0 on luid 0 index 12")}));
}

TEST_F(RouteManagerTest, withoutADefaultRouteNothingIsAdded)
{
    m_ipHelper.forwardTable = {{"192.168.1.0", "255.255.255.0", "0.0.0.0", 4}};
    m_routes->setBypassAddresses({bypass1});
    EXPECT_FALSE(setUp(proxy, 0x0A0000FE));
    EXPECT_EQ(m_ipHelper.calls, QStringList());
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to get original default gateway"});
}

TEST_F(RouteManagerTest, theSplitRoutesTakeTheMetricOfTheTunnelsRoutes)
{
    m_ipHelper.forwardTable = {
        original,
        {"10.6.7.1", "255.255.255.255", "0.0.0.0", 7, 90, MIB_IPPROTO_LOCAL},
        {"10.9.0.0", "255.255.0.0", "0.0.0.0", 4, 91},
        {"0.0.0.0", "0.0.0.0", "10.6.7.2", 7, 5},
        {"10.7.0.0", "255.255.0.0", "0.0.0.0", 7, 92},
    };
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(firstSplit, 5), added(secondSplit, 5)}));
    EXPECT_TRUE(m_log.contains("DEBUG Using metric from existing interface routes: 5"));
}

TEST_F(RouteManagerTest, withoutRoutesOfTheTunnelTheMetricIsZero)
{
    m_ipHelper.forwardTable = {original, {"10.6.7.1", "255.255.255.255", "0.0.0.0", 7, 90, MIB_IPPROTO_LOCAL}};
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(firstSplit, 0), added(secondSplit, 0)}));
    EXPECT_FALSE(m_log.contains("Using metric from existing"));
}

TEST_F(RouteManagerTest, theMetricIsZeroIfTheTableCannotBeReadAgain)
{
    m_ipHelper.forwardTable.push_back({"0.0.0.0", "0.0.0.0", "10.6.7.2", 7, 5});
    m_ipHelper.failForwardTable(4, ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls.constFirst(), added(firstSplit, 0));
}

TEST_F(RouteManagerTest, theFirstSplitRouteThatFailsIsTheLast)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "0.0.0.0/1 ");
    EXPECT_FALSE(setUp());
    EXPECT_EQ(m_ipHelper.calls, QStringList{added(firstSplit)});
    EXPECT_EQ(m_log.linesWith("WARNING"),
              (QStringList{"WARNING Failed to add route: 5", "WARNING Failed to add first split route (0.0.0.0/1)"}));
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.size(), 1);
}

TEST_F(RouteManagerTest, aSecondSplitRouteThatFailsLeavesTheFirstToBeRemoved)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "128.0.0.0/1 ");
    EXPECT_FALSE(setUp());
    EXPECT_EQ(m_log.linesWith("WARNING"), (QStringList{"WARNING Failed to add route: 5",
                                                       "WARNING Failed to add second split route (128.0.0.0/1)"}));
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete"), QStringList{deleted(firstSplit)});
}

TEST_F(RouteManagerTest, routesThatExistCountAsAddedAndAreRemoved)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_OBJECT_ALREADY_EXISTS);
    m_ipHelper.fail("CreateIpForwardEntry", ERROR_OBJECT_ALREADY_EXISTS);
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete").size(), 3);
}

TEST_F(RouteManagerTest, removesItsRoutesInTheOrderOfTheirAddition)
{
    ASSERT_TRUE(setUp(proxy));
    m_ipHelper.calls.clear();
    m_log.clear();
    m_routes->removeAllRoutes();
    // All on the tunnel's interface, the proxy's own too: there Windows does not find it, and it stays.
    EXPECT_EQ(m_ipHelper.calls, (QStringList{deleted("203.0.113.5/32 via 0.0.0.0 on luid 4711 index 7"),
                                             deleted(firstSplit), deleted(secondSplit)}));
    EXPECT_EQ(m_log.lines(), (QStringList{
                                 "DEBUG Removed route: \"203.0.113.5\" / \"255.255.255.255\"",
                                 "DEBUG Removed route: \"0.0.0.0\" / \"128.0.0.0\"",
                                 "DEBUG Removed route: \"128.0.0.0\" / \"128.0.0.0\"",
                             }));
    m_routes->removeAllRoutes();
    m_routes.reset();
    EXPECT_EQ(m_ipHelper.calls.size(), 3) << "once";
}

TEST_F(RouteManagerTest, removesItsRoutesWhenItGoes)
{
    ASSERT_TRUE(setUp());
    m_ipHelper.calls.clear();
    m_routes.reset();
    EXPECT_EQ(m_ipHelper.calls, (QStringList{deleted(firstSplit), deleted(secondSplit)}));
}

TEST_F(RouteManagerTest, goesOnRemovingAfterAFailure)
{
    ASSERT_TRUE(setUp());
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_NOT_FOUND, "0.0.0.0/1 ");
    m_log.clear();
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_log.lines(), (QStringList{
                                 "WARNING Failed to delete route: 1168",
                                 "DEBUG Removed route: \"0.0.0.0\" / \"128.0.0.0\"",
                                 "DEBUG Removed route: \"128.0.0.0\" / \"128.0.0.0\"",
                             }));
    m_ipHelper.calls.clear();
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls, QStringList());
}

TEST_F(RouteManagerTest, aSplitNextHopIsPutIntoTheRoutesAndNotIntoTheirDeletion)
{
    EXPECT_TRUE(m_routes->setupFullTunnelRouting(0x0A060702, loopback, noOverride));
    EXPECT_EQ(m_ipHelper.calls.constFirst(), added("0.0.0.0/1 via 10.6.7.2 on luid 4711 index 7"));
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.constLast(), deleted(secondSplit));
}

TEST_F(RouteManagerTest, aMaskGivesAsManyBitsOfPrefixAsItHasLeadingOnes)
{
    struct Case
    {
        std::uint32_t mask;
        const char *prefix;
    };
    for (const Case one :
         {Case{0, "/0 "}, Case{0x80000000, "/1 "}, Case{0xFFFFFF00, "/24 "}, Case{0xFFFFFFFF, "/32 "}}) {
        m_ipHelper.calls.clear();
        EXPECT_TRUE(m_routes->addRoute(0x0A000000, one.mask));
        EXPECT_TRUE(m_routes->deleteRoute(0x0A000000, one.mask));
        EXPECT_EQ(m_ipHelper.calls.filter(one.prefix).size(), 2) << one.prefix;
    }
}

TEST_F(RouteManagerTest, saysWhichSingleRouteFailed)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED);
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_NOT_FOUND);
    EXPECT_FALSE(m_routes->addRoute(0, 0));
    EXPECT_FALSE(m_routes->deleteRoute(0, 0));
    EXPECT_EQ(m_log.lines(), (QStringList{"WARNING Failed to add route: 5", "WARNING Failed to delete route: 1168"}));
}

} // namespace
} // namespace ruvo
