#include "netconfig/netconfig_test.h"

namespace ruvo::test {

void NetconfigTest::SetUp()
{
    clearBenchFolder();
    ASSERT_EQ(linuxOutput("ip tuntap add dev test mode tun multi_queue && ip link set test up alias "
                          "'wintun | {12345678-9ABC-DEF0-0102-030405060708} | Bench | The adapter'"),
              "");
}

void NetconfigTest::TearDown()
{
    // What a test may have left on the interface that stays.
    EXPECT_EQ(linuxOutput("ip link delete test; ip route flush proto static; sysctl -qw net.ipv4.conf.uplink.tag=0"),
              "");
    EXPECT_EQ(routes(""), "default via 192.0.2.1 dev uplink metric 25\n"
                          "192.0.2.0/24 dev uplink proto kernel scope link src 192.0.2.2\n");
}

NET_IFINDEX NetconfigTest::indexOf(const std::string &link)
{
    return static_cast<NET_IFINDEX>(std::stoul(linuxOutput("ip -o link show dev " + link)));
}

NET_LUID NetconfigTest::luidOf(const std::string &link)
{
    NET_LUID luid{};
    EXPECT_EQ(ConvertInterfaceIndexToLuid(indexOf(link), &luid), DWORD{NO_ERROR});
    return luid;
}

DWORD NetconfigTest::networkOrder(const char *text)
{
    IN_ADDR parsed{};
    EXPECT_EQ(inet_pton(AF_INET, text, &parsed), 1) << text;
    return parsed.s_addr;
}

SOCKADDR_INET NetconfigTest::address(const char *text)
{
    SOCKADDR_INET made{};
    made.Ipv4.sin_family = AF_INET;
    made.Ipv4.sin_addr.s_addr = networkOrder(text);
    return made;
}

DWORD NetconfigTest::addAddress(const std::string &link, const char *text, UINT8 prefixLength)
{
    MIB_UNICASTIPADDRESS_ROW row;
    InitializeUnicastIpAddressEntry(&row);
    row.InterfaceLuid = luidOf(link);
    row.Address = address(text);
    row.OnLinkPrefixLength = prefixLength;
    row.DadState = IpDadStatePreferred;
    return CreateUnicastIpAddressEntry(&row);
}

MIB_IPFORWARD_ROW2 NetconfigTest::route(const std::string &link, const char *destination, UINT8 prefixLength,
                                        const char *nextHop, ULONG metric)
{
    MIB_IPFORWARD_ROW2 row;
    InitializeIpForwardEntry(&row);
    row.InterfaceLuid = luidOf(link);
    row.DestinationPrefix.Prefix = address(destination);
    row.DestinationPrefix.PrefixLength = prefixLength;
    row.NextHop = address(nextHop);
    row.Metric = metric;
    row.Protocol = RouteProtocolNetMgmt;
    return row;
}

MIB_IPFORWARDROW NetconfigTest::olderRoute(const std::string &link, const char *destination, const char *mask,
                                           const char *nextHop, DWORD metric)
{
    MIB_IPFORWARDROW row{};
    row.dwForwardDest = networkOrder(destination);
    row.dwForwardMask = networkOrder(mask);
    row.dwForwardNextHop = networkOrder(nextHop);
    row.dwForwardIfIndex = indexOf(link);
    row.dwForwardType = MIB_IPROUTE_TYPE_INDIRECT;
    row.dwForwardProto = MIB_IPPROTO_NETMGMT;
    row.dwForwardMetric1 = metric;
    return row;
}

MIB_IPINTERFACE_ROW NetconfigTest::interfaceRow(const std::string &link)
{
    MIB_IPINTERFACE_ROW row;
    InitializeIpInterfaceEntry(&row);
    row.Family = AF_INET;
    row.InterfaceLuid = luidOf(link);
    EXPECT_EQ(GetIpInterfaceEntry(&row), DWORD{NO_ERROR});
    return row;
}

std::string NetconfigTest::routes(const std::string &what)
{
    return linuxOutput("ip -4 route show " + what + " | sed 's/ *$//'");
}

} // namespace ruvo::test
