#include "netconfig/netconfig_test.h"

#include <gmock/gmock.h>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// A row as a program has it that changes nothing but what Windows demands.
MIB_IPINTERFACE_ROW settable(MIB_IPINTERFACE_ROW row)
{
    row.SitePrefixLength = 0;
    return row;
}

std::string forwardingOf(const std::string &link)
{
    return linuxOutput("sysctl -n net.ipv4.conf." + link + ".forwarding");
}

} // namespace

TEST_F(NetconfigTest, anInterfaceShowsItsSettings)
{
    const MIB_IPINTERFACE_ROW adapter = interfaceRow("test");
    EXPECT_EQ(adapter.InterfaceIndex, indexOf("test"));
    EXPECT_TRUE(adapter.UseAutomaticMetric);
    EXPECT_EQ(adapter.Metric, ULONG{5});
    EXPECT_EQ(adapter.NlMtu, ULONG{1500});
    EXPECT_FALSE(adapter.ForwardingEnabled);
    EXPECT_FALSE(adapter.Connected);
    const MIB_IPINTERFACE_ROW uplink = interfaceRow("uplink");
    EXPECT_EQ(uplink.Metric, ULONG{25});
    EXPECT_TRUE(uplink.Connected);
}

TEST_F(NetconfigTest, anInterfaceTakesMetricMtuAndForwarding)
{
    MIB_IPINTERFACE_ROW row = settable(interfaceRow("test"));
    row.UseAutomaticMetric = FALSE;
    row.Metric = 0;
    row.NlMtu = 1400;
    row.ForwardingEnabled = TRUE;
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{NO_ERROR});
    EXPECT_THAT(linuxOutput("ip -o link show dev test"), HasSubstr("mtu 1400"));
    EXPECT_EQ(forwardingOf("test"), "1\n");
    EXPECT_EQ(forwardingOf("uplink"), "0\n");
    const MIB_IPINTERFACE_ROW now = interfaceRow("test");
    EXPECT_FALSE(now.UseAutomaticMetric);
    EXPECT_EQ(now.Metric, ULONG{0});
    EXPECT_EQ(now.NlMtu, ULONG{1400});
    EXPECT_TRUE(now.ForwardingEnabled);
    EXPECT_THAT(
        journal("SetIpInterfaceEntry"),
        ElementsAre(HasSubstr(R"("family":2,"interface":"test","metric":0,"automatic-metric":false,"mtu":1400,)"
                              R"("forwarding":true,"site-prefix-length":0,"disable-default-routes":false)")));

    row.UseAutomaticMetric = TRUE;
    row.ForwardingEnabled = FALSE;
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{NO_ERROR});
    EXPECT_EQ(interfaceRow("test").Metric, ULONG{5});
    EXPECT_EQ(forwardingOf("test"), "0\n");
}

TEST_F(NetconfigTest, anInterfacesRowIsRefusedAsItWasRead)
{
    MIB_IPINTERFACE_ROW row = interfaceRow("test");
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{ERROR_INVALID_PARAMETER}); // its site prefix length is not for IPv4
    row.SitePrefixLength = 0;
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{NO_ERROR});
}

TEST_F(NetconfigTest, anInterfacesRowThatCannotBeIsRefused)
{
    const MIB_IPINTERFACE_ROW good = settable(interfaceRow("test"));
    for (const ULONG mtu : {ULONG{351}, ULONG{65536}}) {
        MIB_IPINTERFACE_ROW row = good;
        row.NlMtu = mtu;
        EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{ERROR_INVALID_PARAMETER}) << mtu;
    }
    MIB_IPINTERFACE_ROW row = good;
    row.Family = AF_UNSPEC;
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(GetIpInterfaceEntry(&row), DWORD{ERROR_INVALID_PARAMETER});
    row = good;
    row.InterfaceLuid.Info.NetLuidIndex = 9999;
    EXPECT_EQ(SetIpInterfaceEntry(&row), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(GetIpInterfaceEntry(&row), DWORD{ERROR_NOT_FOUND});
    row = good;
    row.InterfaceLuid.Value = 0;
    row.InterfaceIndex = 0;
    EXPECT_EQ(GetIpInterfaceEntry(&row), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(NetconfigTest, anInterfaceIsFoundByIndexLuidAndGuid)
{
    const NET_LUID luid = luidOf("test");
    NET_IFINDEX index = 0;
    EXPECT_EQ(ConvertInterfaceLuidToIndex(&luid, &index), DWORD{NO_ERROR});
    EXPECT_EQ(index, indexOf("test"));
    GUID found{};
    EXPECT_EQ(ConvertInterfaceLuidToGuid(&luid, &found), DWORD{NO_ERROR});
    EXPECT_TRUE(IsEqualGUID(found, guid));
    NET_LUID back{};
    EXPECT_EQ(ConvertInterfaceGuidToLuid(&guid, &back), DWORD{NO_ERROR});
    EXPECT_EQ(back.Value, luid.Value);
    EXPECT_NE(luidOf("uplink").Value, luid.Value);
}

TEST_F(NetconfigTest, anInterfaceThatDoesNotExistIsNotFound)
{
    NET_LUID luid = luidOf("test");
    luid.Info.NetLuidIndex = 9999;
    NET_IFINDEX index = 7;
    EXPECT_EQ(ConvertInterfaceLuidToIndex(&luid, &index), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(index, NET_IFINDEX{0});
    GUID found = guid;
    EXPECT_EQ(ConvertInterfaceLuidToGuid(&luid, &found), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(ConvertInterfaceIndexToLuid(9999, &luid), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(luid.Value, 0U);
    EXPECT_EQ(ConvertInterfaceLuidToIndex(&luid, nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ConvertInterfaceLuidToIndex(nullptr, &index), DWORD{ERROR_INVALID_PARAMETER});
}

} // namespace ruvo::test
