// Addresses that keep their way past the tunnel.

#include "windows/netcfg/route_manager_test.h"

#include "support/qt_printers.h"

namespace ruvo {
namespace {

using test::RouteManagerTest;

const QString bypassRoute1 = "1.1.1.1/32 via 192.168.1.1 on luid 0 index 4";
const QString bypassRoute2 = "8.8.8.8/32 via 192.168.1.1 on luid 0 index 4";

TEST_F(RouteManagerTest, bypassAddressesKeepTheirWayRightBehindTheProxy)
{
    m_routes->setBypassAddresses({bypass2, bypass1});
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{addedProxyRoute(), added(bypassRoute1), added(bypassRoute2),
                                             added(firstSplit), added(secondSplit)}));
    EXPECT_EQ(m_log.linesWith("Added bypass route"),
              (QStringList{"DEBUG Added bypass route: \"1.1.1.1\" via \"192.168.1.1\"",
                           "DEBUG Added bypass route: \"8.8.8.8\" via \"192.168.1.1\""}));
}

TEST_F(RouteManagerTest, bypassRoutesAreRemovedExactlyAsTheyWereAdded)
{
    m_routes->setBypassAddresses({bypass1, bypass2});
    ASSERT_TRUE(setUp());
    m_ipHelper.calls.clear();
    m_ipHelper.forwardTable.clear(); // what is removed is what was added, whatever the routes are by now
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls,
              (QStringList{deleted(firstSplit), deleted(secondSplit), deleted(bypassRoute1), deleted(bypassRoute2)}));
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.size(), 4) << "once";
}

TEST_F(RouteManagerTest, aBypassRouteOfSomebodyElseStays)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_OBJECT_ALREADY_EXISTS, "1.1.1.1/32");
    m_routes->setBypassAddresses({bypass1, bypass2});
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete").filter("/32"), QStringList{deleted(bypassRoute2)});
}

TEST_F(RouteManagerTest, aBypassRouteThatWindowsRefusesIsOnlyReported)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "1.1.1.1/32");
    m_routes->setBypassAddresses({bypass1, bypass2});
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList{"WARNING Failed to add bypass route: \"1.1.1.1\" error: 5"});
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete").filter("/32"), QStringList{deleted(bypassRoute2)});
}

TEST_F(RouteManagerTest, aBypassRouteThatCannotBeRemovedIsReported)
{
    m_routes->setBypassAddresses({bypass1});
    ASSERT_TRUE(setUp());
    m_ipHelper.fail("DeleteIpForwardEntry2", ERROR_NOT_FOUND, "1.1.1.1/32");
    m_log.clear();
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_log.linesWith("bypass"),
              QStringList{"WARNING Failed to delete bypass route: \"1.1.1.1\" error: 1168"});
}

TEST_F(RouteManagerTest, bypassRoutesAreRemovedThoughASplitRouteFailed)
{
    m_routes->setBypassAddresses({bypass1});
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "0.0.0.0/1 ");
    EXPECT_FALSE(setUp());
    m_routes.reset();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete"), QStringList{deleted(bypassRoute1)});
}

TEST_F(RouteManagerTest, aDefaultRouteIntoTheTunnelIsNoBypass)
{
    m_ipHelper.forwardTable = {ofTheTunnel, original};
    m_routes->setBypassAddresses({bypass1, bypass2});
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(firstSplit, 5), added(secondSplit, 5)}));
    EXPECT_EQ(m_log.linesWith("WARNING"),
              QStringList{"WARNING Default route leads into the tunnel itself, skipping bypass routes, ifIndex: 7"});
}

TEST_F(RouteManagerTest, aDefaultRouteIntoTheTunnelGivesWayToAnEarlierOne)
{
    m_ipHelper.forwardTable = {ofTheTunnel, original};
    m_routes->setEarlierDefaultRoutes({{0xC0A80101, 4}});
    m_routes->setBypassAddresses({bypass1, bypass2});
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{addedProxyRoute(), added(bypassRoute1), added(bypassRoute2),
                                             added(firstSplit, 5), added(secondSplit, 5)}));
    EXPECT_TRUE(m_log.contains("DEBUG Original gateway: \"192.168.1.1\" (ifIndex= 4 )"));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
}

TEST_F(RouteManagerTest, aDefaultRouteIntoTheTunnelMattersToNobodyWithoutBypassAddresses)
{
    m_ipHelper.forwardTable = {ofTheTunnel};
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
}

TEST_F(RouteManagerTest, aBypassAddressThatIsReachedWithoutTheGatewayGetsNoRoute)
{
    m_ipHelper.forwardTable.push_back({"192.168.1.0", "255.255.255.0", "0.0.0.0", 4});
    m_ipHelper.forwardTable.push_back({"172.16.0.0", "255.240.0.0", "10.1.1.1", 9});
    m_routes->setTunnelNetwork({0x0A060701, 0xFFFFFFFC});
    m_routes->setBypassAddresses({bypass1, 0x7F000001, 0x0A060702, 0xC0A8014D, 0xAC100005});
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls, (QStringList{added(bypassRoute1), added(firstSplit), added(secondSplit)}));
    EXPECT_EQ(m_log.linesWith("No bypass route"),
              (QStringList{
                  "DEBUG No bypass route, reached without the gateway: \"10.6.7.2\"",
                  "DEBUG No bypass route, reached without the gateway: \"127.0.0.1\"",
                  "DEBUG No bypass route, reached without the gateway: \"172.16.0.5\"",
                  "DEBUG No bypass route, reached without the gateway: \"192.168.1.77\"",
              }));
}

TEST_F(RouteManagerTest, everyBypassAddressGetsItsRouteIfTheTableCannotBeReadAgain)
{
    m_ipHelper.forwardTable.push_back({"1.1.1.0", "255.255.255.0", "0.0.0.0", 4});
    m_ipHelper.failForwardTable(4, ERROR_NOT_SUPPORTED);
    m_routes->setBypassAddresses({bypass1, bypass2});
    EXPECT_TRUE(setUp());
    EXPECT_EQ(m_ipHelper.calls.filter("/32"), (QStringList{added(bypassRoute1), added(bypassRoute2)}));
}

} // namespace
} // namespace ruvo
