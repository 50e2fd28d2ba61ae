#pragma once

#include "netcfg/route_manager.h"

#include "support/log_capture.h"
#include "windows/netcfg/fake_ip_helper.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

namespace ruvo::test {

/// Tests of the route manager of a tunnel with the LUID 4711 and the index 7. The system has one default route.
class RouteManagerTest : public ::testing::Test
{
protected:
    static constexpr std::uint64_t tunnelLuid = 4711;
    static constexpr std::uint32_t noOverride = 0;
    static constexpr std::uint32_t onLink = 0;
    static constexpr std::uint32_t noProxy = 0;
    static constexpr std::uint32_t loopback = 0x7F000001;
    static constexpr std::uint32_t proxy = 0xCB007105;   // 203.0.113.5
    static constexpr std::uint32_t bypass1 = 0x01010101; // 1.1.1.1
    static constexpr std::uint32_t bypass2 = 0x08080808; // 8.8.8.8

    static constexpr ForwardRow original{"0.0.0.0", "0.0.0.0", "192.168.1.1", 4, 25};
    static constexpr ForwardRow ofTheTunnel{"0.0.0.0", "0.0.0.0", "10.6.7.2", 7, 5};

    inline static const QString firstSplit = "0.0.0.0/1 via 0.0.0.0 on luid 4711 index 7";
    inline static const QString secondSplit = "128.0.0.0/1 via 0.0.0.0 on luid 4711 index 7";

    static QString added(const QString &route, int metric = 0)
    {
        return QString("CreateIpForwardEntry2 %1 metric %2 protocol 3").arg(route).arg(metric);
    }
    static QString deleted(const QString &route) { return "DeleteIpForwardEntry2 " + route; }
    static QString addedProxyRoute(const char *gateway = "192.168.1.1", int index = 4, int metric = 1)
    {
        return QString("CreateIpForwardEntry 203.0.113.5/255.255.255.255 via %1 index %2 type 4 protocol 3 metric %3")
            .arg(gateway)
            .arg(index)
            .arg(metric);
    }

    void SetUp() override
    {
        m_ipHelper.forwardTable = {original};
        m_routes.emplace(m_notes);
        m_routes->setInterface(tunnelLuid);
        m_ipHelper.calls.clear();
    }

    bool setUp(std::uint32_t proxyAddress = loopback, std::uint32_t gatewayOverride = noOverride)
    {
        return m_routes->setupFullTunnelRouting(onLink, proxyAddress, gatewayOverride);
    }

    LogCapture m_log;
    FakeIpHelper m_ipHelper;
    const BypassRouteNotes m_notes{L"SYSTEM\\CurrentControlSet\\Services\\no such service"}; // takes no notes
    std::optional<RouteManager> m_routes;
};

} // namespace ruvo::test
