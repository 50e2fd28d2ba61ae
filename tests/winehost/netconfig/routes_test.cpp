#include "netconfig/netconfig_test.h"

#include <gmock/gmock.h>

#include <vector>

namespace ruvo::test {

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class RoutesTest : public NetconfigTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(NetconfigTest::SetUp());
        ASSERT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{NO_ERROR});
    }

    static DWORD add(const MIB_IPFORWARD_ROW2 &row) { return CreateIpForwardEntry2(&row); }
    static DWORD remove(const MIB_IPFORWARD_ROW2 &row) { return DeleteIpForwardEntry2(&row); }
    static DWORD addOlder(MIB_IPFORWARDROW row) { return CreateIpForwardEntry(&row); }

    static std::vector<MIB_IPFORWARDROW> table()
    {
        ULONG size = 0;
        EXPECT_EQ(GetIpForwardTable(nullptr, &size, FALSE), DWORD{ERROR_INSUFFICIENT_BUFFER});
        std::vector<BYTE> buffer(size);
        auto *made = reinterpret_cast<MIB_IPFORWARDTABLE *>(buffer.data());
        ULONG tooSmall = size - 1;
        EXPECT_EQ(GetIpForwardTable(made, &tooSmall, FALSE), DWORD{ERROR_INSUFFICIENT_BUFFER});
        EXPECT_EQ(GetIpForwardTable(made, &size, FALSE), DWORD{NO_ERROR});
        return {made->table, made->table + made->dwNumEntries};
    }

    /// "destination/mask via next-hop on link, protocol, metric" of each row.
    static std::vector<std::string> tableText()
    {
        std::vector<std::string> lines;
        for (const MIB_IPFORWARDROW &row : table()) {
            char text[200];
            std::string link = "?";
            for (const char *name : {"lo", "uplink", "test"}) {
                if (indexOf(name) == row.dwForwardIfIndex)
                    link = name;
            }
            std::snprintf(text, sizeof text, "%s/%s via %s on %s, protocol %d, metric %lu",
                          dotted(row.dwForwardDest).c_str(), dotted(row.dwForwardMask).c_str(),
                          dotted(row.dwForwardNextHop).c_str(), link.c_str(), static_cast<int>(row.dwForwardProto),
                          row.dwForwardMetric1);
            lines.emplace_back(text);
        }
        return lines;
    }

    static std::string dotted(DWORD address)
    {
        char text[16];
        IN_ADDR in{};
        in.s_addr = address;
        return inet_ntop(AF_INET, &in, text, sizeof text);
    }
};

} // namespace

TEST_F(RoutesTest, landInTheTableOfTheNamespace)
{
    EXPECT_EQ(add(route("test", "0.0.0.0", 1, "0.0.0.0", 0)), DWORD{NO_ERROR});
    EXPECT_EQ(add(route("test", "0.0.0.0", 0, "10.6.7.2", 0)), DWORD{NO_ERROR});
    EXPECT_EQ(add(route("uplink", "8.8.8.8", 32, "192.0.2.1", 0)), DWORD{NO_ERROR});
    EXPECT_EQ(routes("dev test proto static"), "0.0.0.0/1 scope link metric 5 linkdown\n"
                                               "default via 10.6.7.2 metric 5 linkdown\n");
    EXPECT_EQ(routes("dev uplink proto static"), "8.8.8.8 via 192.0.2.1 metric 25\n");
    EXPECT_THAT(journal("CreateIpForwardEntry2"),
                ElementsAre(HasSubstr(R"("metric":0,"protocol":3,"destination":"0.0.0.0/1","next-hop":"0.0.0.0",)"
                                      R"("interface":"test","result":true)"),
                            HasSubstr(R"("destination":"0.0.0.0/0","next-hop":"10.6.7.2")"),
                            HasSubstr(R"("destination":"8.8.8.8/32","next-hop":"192.0.2.1","interface":"uplink")")));
}

TEST_F(RoutesTest, thatExistAreRefusedWhateverTheirMetricIs)
{
    EXPECT_EQ(add(route("test", "128.0.0.0", 1, "0.0.0.0", 0)), DWORD{NO_ERROR});
    EXPECT_EQ(add(route("test", "128.0.0.0", 1, "0.0.0.0", 0)), DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(add(route("test", "128.0.0.0", 1, "0.0.0.0", 9)), DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(add(route("uplink", "0.0.0.0", 0, "192.0.2.1", 0)), DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(add(route("test", "128.0.0.0", 1, "10.6.7.2", 0)), DWORD{NO_ERROR}); // another way
    EXPECT_EQ(add(route("uplink", "128.0.0.0", 1, "0.0.0.0", 0)), DWORD{NO_ERROR});
}

TEST_F(RoutesTest, areDeletedByTheirExactNextHop)
{
    ASSERT_EQ(add(route("test", "128.0.0.0", 1, "0.0.0.0")), DWORD{NO_ERROR});
    ASSERT_EQ(add(route("test", "64.0.0.0", 2, "10.6.7.2")), DWORD{NO_ERROR});
    EXPECT_EQ(remove(route("test", "128.0.0.0", 1, "10.6.7.2")), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(remove(route("test", "64.0.0.0", 2, "0.0.0.0")), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(remove(route("uplink", "128.0.0.0", 1, "0.0.0.0")), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(remove(route("test", "128.0.0.0", 2, "0.0.0.0")), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(remove(route("test", "64.0.0.0", 2, "10.6.7.2")), DWORD{NO_ERROR});

    // A next hop that was never filled in is the same as 0.
    MIB_IPFORWARD_ROW2 row{};
    row.InterfaceIndex = indexOf("test");
    row.DestinationPrefix = route("test", "128.0.0.0", 1, "0.0.0.0").DestinationPrefix;
    EXPECT_EQ(remove(row), DWORD{NO_ERROR});
    EXPECT_EQ(remove(row), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(routes("dev test proto static"), "");
}

TEST_F(RoutesTest, thatCannotBeAreRefused)
{
    EXPECT_EQ(add(route("test", "10.1.2.3", 24, "0.0.0.0")),
              DWORD{ERROR_INVALID_PARAMETER}); // bits behind the prefix
    EXPECT_EQ(add(route("test", "10.0.0.0", 33, "0.0.0.0")), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CreateIpForwardEntry2(nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(DeleteIpForwardEntry2(nullptr), DWORD{ERROR_INVALID_PARAMETER});

    MIB_IPFORWARD_ROW2 row = route("test", "10.0.0.0", 8, "0.0.0.0");
    row.InterfaceLuid.Value += 1ULL << 24; // the index within the LUID
    row.InterfaceLuid.Info.NetLuidIndex = 9999;
    EXPECT_EQ(add(row), DWORD{ERROR_NOT_FOUND});
    row.InterfaceLuid.Value = 0;
    EXPECT_EQ(add(row), DWORD{ERROR_INVALID_PARAMETER});

    MIB_IPFORWARD_ROW2 unfilled;
    InitializeIpForwardEntry(&unfilled);
    unfilled.InterfaceLuid = luidOf("test");
    unfilled.DestinationPrefix.Prefix = address("10.0.0.0");
    unfilled.DestinationPrefix.PrefixLength = 8;
    EXPECT_EQ(add(unfilled), DWORD{ERROR_INVALID_PARAMETER}); // no metric, no protocol
}

TEST_F(RoutesTest, thatLeadOutsideTheInterfacesPrefixesAreTaken)
{
    EXPECT_EQ(add(route("uplink", "10.0.0.0", 8, "203.0.113.1")), DWORD{NO_ERROR});
    EXPECT_EQ(routes("dev uplink proto static"), "10.0.0.0/8 via 203.0.113.1 metric 25 onlink\n");
    EXPECT_EQ(remove(route("uplink", "10.0.0.0", 8, "203.0.113.1")), DWORD{NO_ERROR});
}

TEST_F(RoutesTest, ofTheOlderCallNeedTheInterfacesMetricAtLeast)
{
    EXPECT_EQ(addOlder(olderRoute("uplink", "203.0.113.7", "255.255.255.255", "192.0.2.1", 24)),
              DWORD{ERROR_BAD_ARGUMENTS});
    EXPECT_EQ(addOlder(olderRoute("uplink", "203.0.113.7", "255.255.255.255", "192.0.2.1", 25)), DWORD{NO_ERROR});
    EXPECT_EQ(addOlder(olderRoute("uplink", "203.0.113.7", "255.255.255.255", "192.0.2.1", 30)),
              DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(routes("dev uplink proto static"), "203.0.113.7 via 192.0.2.1 metric 25\n");

    // Tag 2: the metric is 1.
    ASSERT_EQ(linuxOutput("sysctl -qw net.ipv4.conf.uplink.tag=2"), "");
    EXPECT_EQ(addOlder(olderRoute("uplink", "203.0.113.8", "255.255.255.255", "192.0.2.1", 0)),
              DWORD{ERROR_BAD_ARGUMENTS});
    EXPECT_EQ(addOlder(olderRoute("uplink", "203.0.113.8", "255.255.255.255", "192.0.2.1", 1)), DWORD{NO_ERROR});
    EXPECT_THAT(routes("dev uplink proto static"), HasSubstr("203.0.113.8 via 192.0.2.1 metric 1\n"));
    EXPECT_THAT(
        journal("\"CreateIpForwardEntry\""),
        Contains(HasSubstr(R"("destination":"203.0.113.8","mask":"255.255.255.255","next-hop":"192.0.2.1")")));
}

TEST_F(RoutesTest, ofTheOlderCallAreRefusedIfTheyCannotBe)
{
    EXPECT_EQ(addOlder(olderRoute("uplink", "10.0.0.0", "255.0.255.0", "192.0.2.1", 25)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(addOlder(olderRoute("uplink", "10.0.0.1", "255.0.0.0", "192.0.2.1", 25)),
              DWORD{ERROR_INVALID_PARAMETER});
    MIB_IPFORWARDROW row = olderRoute("uplink", "10.0.0.0", "255.0.0.0", "192.0.2.1", 25);
    row.dwForwardProto = MIB_IPPROTO_LOCAL;
    EXPECT_EQ(addOlder(row), DWORD{ERROR_INVALID_PARAMETER});
    row.dwForwardProto = MIB_IPPROTO_NETMGMT;
    row.dwForwardIfIndex = 9999;
    EXPECT_EQ(addOlder(row), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(RoutesTest, standInTheTableWithTheSumOfBothMetrics)
{
    ASSERT_EQ(add(route("test", "0.0.0.0", 1, "0.0.0.0", 3)), DWORD{NO_ERROR});
    ASSERT_EQ(linuxOutput("ip route add 10.0.0.0/8 via 192.0.2.1"), ""); // knows of no metric
    EXPECT_THAT(tableText(), ElementsAre("0.0.0.0/0.0.0.0 via 192.0.2.1 on uplink, protocol 3, metric 25",
                                         "0.0.0.0/128.0.0.0 via 0.0.0.0 on test, protocol 3, metric 8",
                                         "10.0.0.0/255.0.0.0 via 192.0.2.1 on uplink, protocol 3, metric 25",
                                         "10.6.7.0/255.255.255.252 via 0.0.0.0 on test, protocol 2, metric 5",
                                         "127.0.0.0/255.0.0.0 via 0.0.0.0 on lo, protocol 2, metric 75",
                                         "192.0.2.0/255.255.255.0 via 0.0.0.0 on uplink, protocol 2, metric 25"));
    EXPECT_EQ(linuxOutput("ip route del 10.0.0.0/8"), "");
}

TEST_F(RoutesTest, toEverywhereAreListedInEitherOrder)
{
    ASSERT_EQ(add(route("test", "0.0.0.0", 0, "10.6.7.2", 0)), DWORD{NO_ERROR});
    ASSERT_EQ(add(route("test", "0.0.0.0", 1, "0.0.0.0", 0)), DWORD{NO_ERROR});
    EXPECT_EQ(table()[0].dwForwardIfIndex, indexOf("uplink"));
    EXPECT_EQ(table()[1].dwForwardIfIndex, indexOf("test"));
    writeBenchFile("netconfig.txt", "default-routes reversed\n");
    EXPECT_EQ(table()[0].dwForwardIfIndex, indexOf("test"));
    EXPECT_EQ(table()[1].dwForwardIfIndex, indexOf("uplink"));
    EXPECT_EQ(table()[1].dwForwardMask, DWORD{0});
}

TEST_F(RoutesTest, followAChangeOfTheInterfacesMetric)
{
    ASSERT_EQ(add(route("test", "0.0.0.0", 0, "10.6.7.2", 0)), DWORD{NO_ERROR});
    ASSERT_EQ(add(route("test", "0.0.0.0", 1, "0.0.0.0", 7)), DWORD{NO_ERROR});
    MIB_IPINTERFACE_ROW row = interfaceRow("test");
    row.UseAutomaticMetric = FALSE;
    row.Metric = 0;
    row.SitePrefixLength = 0;
    ASSERT_EQ(SetIpInterfaceEntry(&row), DWORD{NO_ERROR});
    EXPECT_EQ(routes("dev test proto static"), "0.0.0.0/1 scope link metric 7 linkdown\n"
                                               "default via 10.6.7.2 linkdown\n");
    row.Metric = 50;
    ASSERT_EQ(SetIpInterfaceEntry(&row), DWORD{NO_ERROR});
    EXPECT_EQ(routes("dev test proto static"), "0.0.0.0/1 scope link metric 57 linkdown\n"
                                               "default via 10.6.7.2 metric 50 linkdown\n");
}

TEST_F(RoutesTest, goWithTheAdapter)
{
    ASSERT_EQ(add(route("test", "0.0.0.0", 1, "0.0.0.0")), DWORD{NO_ERROR});
    ASSERT_EQ(linuxOutput("ip link delete test && ip tuntap add dev test mode tun multi_queue"), "");
    EXPECT_EQ(routes("dev test"), "");
    MIB_IPINTERFACE_ROW row = interfaceRow("test"); // no metric of the old one either
    EXPECT_TRUE(row.UseAutomaticMetric);
}

} // namespace ruvo::test
