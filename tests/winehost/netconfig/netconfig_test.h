#pragma once

#include "namespace/bench_files.h"
#include "namespace/linux_command.h"

#include "common/winsock_headers.h"

#include <gtest/gtest.h>

#include <netioapi.h>

#include <string>

namespace ruvo::test {

/// Tests of IP Helper in the namespace of in-namespace: "uplink" (192.0.2.2/24, default route with metric 25), and a
/// TUN "test" that Linux has made as a Wintun adapter named "The adapter", not connected.
class NetconfigTest : public ::testing::Test
{
protected:
    static constexpr GUID guid{0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};

    void SetUp() override;
    void TearDown() override;

    static NET_IFINDEX indexOf(const std::string &link);
    static NET_LUID luidOf(const std::string &link);

    /// Of dotted text.
    static SOCKADDR_INET address(const char *text);
    static DWORD networkOrder(const char *text);

    static DWORD addAddress(const std::string &link, const char *text, UINT8 prefixLength);
    static MIB_IPFORWARD_ROW2 route(const std::string &link, const char *destination, UINT8 prefixLength,
                                    const char *nextHop, ULONG metric = 0);
    static MIB_IPFORWARDROW olderRoute(const std::string &link, const char *destination, const char *mask,
                                       const char *nextHop, DWORD metric);
    static MIB_IPINTERFACE_ROW interfaceRow(const std::string &link);

    /// `ip -4 route show …`, without the blanks at the ends of lines.
    static std::string routes(const std::string &what);
};

} // namespace ruvo::test
