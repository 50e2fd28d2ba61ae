// The host route of a proxy on another machine, which Windows may refuse.

#include "windows/netcfg/route_manager_test.h"

#include "support/qt_printers.h"

namespace ruvo {
namespace {

constexpr char askedForMetric[] = "GetIpInterfaceEntry family 2 index 4";

class ProxyRoute : public test::RouteManagerTest
{
protected:
    void SetUp() override
    {
        RouteManagerTest::SetUp();
        m_ipHelper.currentMetric = 35;
    }

    /// As Windows does below the interface's metric.
    void refuseMetric1() { m_ipHelper.fail("CreateIpForwardEntry", ERROR_BAD_ARGUMENTS, "metric 1"); }

    QStringList callsForTheProxy() const
    {
        return m_ipHelper.calls.filter("203.0.113.5") + m_ipHelper.calls.filter("GetIpInterfaceEntry");
    }
    void expectWarning(DWORD error)
    {
        EXPECT_EQ(m_log.linesWith("WARNING"),
                  QStringList{QString("WARNING Warning: Failed to add proxy bypass route: %1").arg(error)});
    }
};

TEST_F(ProxyRoute, takesTheInterfacesMetricWhereItsOwnIsTooLow)
{
    refuseMetric1();
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{addedProxyRoute(), askedForMetric, addedProxyRoute("192.168.1.1", 4, 35),
                                             added(firstSplit), added(secondSplit)}));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    EXPECT_EQ(m_log.linesWith("proxy"),
              QStringList{"DEBUG Added proxy bypass route: \"203.0.113.5\" via \"192.168.1.1\""});
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete").constFirst(),
              deleted("203.0.113.5/32 via 0.0.0.0 on luid 4711 index 7"));
}

TEST_F(ProxyRoute, thatIsThereAlreadyWithTheInterfacesMetricCountsAsAdded)
{
    refuseMetric1();
    m_ipHelper.fail("CreateIpForwardEntry", ERROR_OBJECT_ALREADY_EXISTS, "metric 35");
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete").size(), 3);
}

TEST_F(ProxyRoute, thatIsRefusedTwiceIsOnlyReported)
{
    m_ipHelper.fail("CreateIpForwardEntry", ERROR_BAD_ARGUMENTS);
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(m_ipHelper.calls.filter("CreateIpForwardEntry 203").size(), 2);
    expectWarning(ERROR_BAD_ARGUMENTS);
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_ipHelper.calls.filter("Delete"), (QStringList{deleted(firstSplit), deleted(secondSplit)}));
}

TEST_F(ProxyRoute, tellsTheErrorOfItsLastAttempt)
{
    refuseMetric1();
    m_ipHelper.fail("CreateIpForwardEntry", ERROR_ACCESS_DENIED, "metric 35");
    EXPECT_TRUE(setUp(proxy));
    expectWarning(ERROR_ACCESS_DENIED);
}

TEST_F(ProxyRoute, isNotTriedAgainAfterAnotherError)
{
    m_ipHelper.fail("CreateIpForwardEntry", ERROR_ACCESS_DENIED);
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(callsForTheProxy(), QStringList{addedProxyRoute()});
    expectWarning(ERROR_ACCESS_DENIED);
}

TEST_F(ProxyRoute, isNotTriedAgainWithAMetricThatNobodyKnows)
{
    refuseMetric1();
    m_ipHelper.fail("GetIpInterfaceEntry", ERROR_NOT_FOUND);
    EXPECT_TRUE(setUp(proxy));
    EXPECT_EQ(callsForTheProxy(), (QStringList{addedProxyRoute(), askedForMetric}));
    expectWarning(ERROR_BAD_ARGUMENTS);
}

TEST_F(ProxyRoute, isNotTriedAgainForAProxyThatTheGatewayDoesNotLeadTo)
{
    refuseMetric1();
    const test::ForwardRow ways[] = {
        {"203.0.113.0", "255.255.255.0", "0.0.0.0", 4},
        {"203.0.113.0", "255.255.255.0", "172.16.0.1", 9},
    };
    for (const test::ForwardRow &way : ways) {
        m_ipHelper.calls.clear();
        m_log.clear();
        m_ipHelper.forwardTable = {original, way};
        EXPECT_TRUE(setUp(proxy));
        EXPECT_EQ(callsForTheProxy(), QStringList{addedProxyRoute()}) << way.nextHop;
        expectWarning(ERROR_BAD_ARGUMENTS);
    }
}

} // namespace
} // namespace ruvo
