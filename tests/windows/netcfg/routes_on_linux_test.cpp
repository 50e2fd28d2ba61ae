// The route manager on real routes.

#include "netcfg/route_manager.h"

#include "netcfg/wintun_adapter.h"
#include "support/qt_printers.h"
#include "windows/netcfg/namespace_test.h"

#include <gmock/gmock.h>

#include <optional>

namespace ruvo {
namespace {

using test::linuxOutput;
using ::testing::HasSubstr;

constexpr std::uint32_t onLink = 0;
constexpr std::uint32_t noOverride = 0;
constexpr std::uint32_t loopback = 0x7F000001;
constexpr std::uint32_t proxy = 0xCB007105; // 203.0.113.5

class RoutesOnLinux : public test::NamespaceTest
{
protected:
    void SetUp() override
    {
        NamespaceTest::SetUp();
        m_own.emplace();
        ASSERT_TRUE(m_own->load(libraryPath()));
        ASSERT_TRUE(m_own->createAdapter(L"test", L"SocksTunnel"));
        ASSERT_TRUE(m_own->setIpAddress(0x0A060701, 30));
        m_routes.emplace(m_notes);
        m_routes->setTunnelNetwork({0x0A060701, 0xFFFFFFFC});
        m_routes->setInterface(m_own->luid());
        m_log.clear();
    }

    void TearDown() override
    {
        m_routes.reset();
        m_own.reset();
        NamespaceTest::TearDown();
    }

    /// The way that a packet to `address` takes.
    static std::string wayTo(const std::string &address)
    {
        return linuxOutput("ip route get " + address + " | grep -o ' dev [^ ]*' | cut -d ' ' -f 3");
    }

    const BypassRouteNotes m_notes; // without a service it takes none
    std::optional<WintunAdapter> m_own;
    std::optional<RouteManager> m_routes;
};

TEST_F(RoutesOnLinux, leadEverythingIntoTheTunnelAndBack)
{
    EXPECT_EQ(wayTo("93.184.216.34"), "uplink\n");
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_THAT(routes("0.0.0.0/1"), HasSubstr("0.0.0.0/1 dev test"));
    EXPECT_THAT(routes("128.0.0.0/1"), HasSubstr("128.0.0.0/1 dev test"));
    EXPECT_EQ(wayTo("93.184.216.34"), "test\n");
    EXPECT_EQ(wayTo("203.0.113.5"), "test\n");
    EXPECT_EQ(wayTo("192.0.2.77"), "uplink\n") << "the nearer network";
    m_routes->removeAllRoutes();
    EXPECT_EQ(wayTo("93.184.216.34"), "uplink\n");
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
}

TEST_F(RoutesOnLinux, leaveTheProxysOwnRouteBehind)
{
    // The older call refuses metrics below the interface's.
    ASSERT_EQ(linuxOutput("sysctl -qw net.ipv4.conf.uplink.tag=2"), "");
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, proxy, noOverride));
    EXPECT_EQ(wayTo("203.0.113.5"), "uplink\n");
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList{"WARNING Failed to delete route: 1168"});
    EXPECT_THAT(routes("203.0.113.5"), HasSubstr("203.0.113.5 via 192.0.2.1 dev uplink"));
    EXPECT_EQ(linuxOutput("ip route delete 203.0.113.5; sysctl -qw net.ipv4.conf.uplink.tag=0"), "");
}

TEST_F(RoutesOnLinux, giveTheProxyTheInterfacesMetricWhereALowerOneIsRefused)
{
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, proxy, noOverride));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    EXPECT_EQ(wayTo("203.0.113.5"), "uplink\n");
    EXPECT_THAT(routes("203.0.113.5"), HasSubstr("203.0.113.5 via 192.0.2.1 dev uplink proto static metric 25"));
    EXPECT_EQ(linuxOutput("ip route delete 203.0.113.5"), "");
}

TEST_F(RoutesOnLinux, areSetUpThoughTheProxysOwnRouteIsRefused)
{
    fail("CreateIpForwardEntry", ERROR_BAD_ARGUMENTS);
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, proxy, noOverride));
    failNothing();
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList{"WARNING Warning: Failed to add proxy bypass route: 160"});
    EXPECT_EQ(wayTo("203.0.113.5"), "test\n");
}

TEST_F(RoutesOnLinux, leaveAProxyInTheNeighbourhoodItsWay)
{
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, 0xC000024D, noOverride));
    EXPECT_EQ(routes("192.0.2.77"), "");
    EXPECT_EQ(wayTo("192.0.2.77"), "uplink\n");
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList{"WARNING Warning: Failed to add proxy bypass route: 160"});
}

TEST_F(RoutesOnLinux, spareBypassAddresses)
{
    m_routes->setBypassAddresses({0x01010101, 0x08080808});
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_EQ(wayTo("8.8.8.8"), "uplink\n");
    EXPECT_EQ(wayTo("1.1.1.1"), "uplink\n");
    EXPECT_EQ(wayTo("1.1.1.2"), "test\n");
    m_routes->removeAllRoutes();
    EXPECT_EQ(routes("8.8.8.8") + routes("1.1.1.1"), "");
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
}

TEST_F(RoutesOnLinux, spareWithoutARouteWhatIsReachedWithoutTheGateway)
{
    ASSERT_EQ(
        linuxOutput("ip link add second type veth peer name third && ip address add 172.16.0.2/24 dev second && "
                    "ip link set second up && ip link set third up"),
        "");
    m_routes->setBypassAddresses({0x08080808, loopback, 0x0A060702, 0xC000024D, 0xAC10004D});
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_EQ(wayTo("8.8.8.8"), "uplink\n");
    EXPECT_EQ(wayTo("172.16.0.77"), "second\n");
    EXPECT_EQ(wayTo("192.0.2.77"), "uplink\n");
    for (const char *address : {"127.0.0.1", "10.6.7.2", "192.0.2.77", "172.16.0.77"})
        EXPECT_EQ(routes(address), "") << address;
    m_routes->removeAllRoutes();
    EXPECT_EQ(linuxOutput("ip link delete second"), "");
}

TEST_F(RoutesOnLinux, leaveABypassRouteOfSomebodyElse)
{
    ASSERT_EQ(linuxOutput("ip route add 8.8.8.8 via 192.0.2.1 dev uplink metric 25"), "");
    m_routes->setBypassAddresses({0x01010101, 0x08080808});
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    m_routes.reset();
    EXPECT_THAT(routes("8.8.8.8"), HasSubstr("8.8.8.8 via 192.0.2.1 dev uplink"));
    EXPECT_EQ(routes("1.1.1.1"), "");
    EXPECT_EQ(linuxOutput("ip route delete 8.8.8.8"), "");
}

TEST_F(RoutesOnLinux, takeTheMetricOfTheTunnelsGateway)
{
    ASSERT_TRUE(m_own->setGateway(0x0A060702));
    ASSERT_TRUE(m_own->setMetric(0));
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_EQ(m_log.linesWith("Using metric from existing interface routes:").size(), 1);
}

TEST_F(RoutesOnLinux, areBuiltWhicheverDefaultRouteComesFirst)
{
    ASSERT_TRUE(m_own->setGateway(0x0A060702));
    std::uint32_t gateway = 0;
    std::uint32_t index = 0;
    ASSERT_TRUE(m_routes->findOriginalGateway(gateway, index));
    EXPECT_EQ(gateway, 0xC0000201u);
    EXPECT_NE(index, m_own->interfaceIndex());

    // The tunnel's own default route first: nothing can bypass it, unless another was known before.
    test::writeBenchFile("netconfig.txt", "default-routes reversed\n");
    ASSERT_TRUE(m_routes->findOriginalGateway(gateway, index));
    EXPECT_EQ(gateway, 0x0A060702u);
    EXPECT_EQ(index, m_own->interfaceIndex());
    m_routes->setBypassAddresses({0x08080808});
    m_log.clear();
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_EQ(m_log.linesWith("skipping bypass routes").size(), 1);
    EXPECT_EQ(wayTo("8.8.8.8"), "test\n");
    EXPECT_EQ(wayTo("93.184.216.34"), "test\n");
    m_routes->removeAllRoutes();

    const auto uplink = static_cast<std::uint32_t>(std::stoul(linuxOutput("ip -o link show uplink | cut -d : -f 1")));
    m_routes->setEarlierDefaultRoutes({{0xC0000201, uplink}});
    m_log.clear();
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    EXPECT_EQ(wayTo("8.8.8.8"), "uplink\n");
    EXPECT_EQ(wayTo("93.184.216.34"), "test\n");
}

TEST_F(RoutesOnLinux, areNotBuiltWithoutADefaultRoute)
{
    ASSERT_EQ(linuxOutput("ip route delete default"), "");
    EXPECT_FALSE(m_routes->setupFullTunnelRouting(onLink, proxy, noOverride));
    EXPECT_EQ(routes("0.0.0.0/1"), "");
    EXPECT_EQ(linuxOutput("ip route add default via 192.0.2.1 metric 25"), "");
}

TEST_F(RoutesOnLinux, thatExistCountAsAddedAndGo)
{
    ASSERT_TRUE(m_routes->setupFullTunnelRouting(onLink, loopback, noOverride));
    RouteManager again(m_notes);
    again.setInterface(m_own->luid());
    EXPECT_TRUE(again.setupFullTunnelRouting(onLink, loopback, noOverride));
    again.removeAllRoutes();
    EXPECT_EQ(routes("0.0.0.0/1") + routes("128.0.0.0/1"), "");
    m_log.clear();
    m_routes->removeAllRoutes();
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList(2, "WARNING Failed to delete route: 1168"));
}

} // namespace
} // namespace ruvo
