#pragma once

#include "common/winsock_headers.h"
#include "netcfg/bypass_route_rule.h"
#include "netcfg/bypass_routes.h"
#include "netcfg/default_routes.h"

#include <netioapi.h>

#include <cstdint>
#include <set>
#include <utility>
#include <vector>

namespace ruvo {

/// Steers all IPv4 traffic into the tunnel and leaves the system's default route alone: the two halves of the address
/// space, more specific than any default, go to the tunnel's interface; the proxy server and the bypass addresses go
/// out as before. Adds routes once for each start of the tunnel and takes them away again.
///
/// Service thread. Addresses and masks are in host order. Every operation that fails logs why and returns false.
class RouteManager
{
public:
    /// `notes` of the bypass routes outlive this.
    explicit RouteManager(const BypassRouteNotes &notes) : m_bypassRoutes(notes) {}
    /// As removeAllRoutes.
    ~RouteManager();
    RouteManager(const RouteManager &) = delete;
    RouteManager &operator=(const RouteManager &) = delete;

    /// The tunnel's interface.
    void setInterface(std::uint64_t luid);
    /// The network of the tunnel's address. Before setupFullTunnelRouting.
    void setTunnelNetwork(const Ipv4Network &network) { m_tunnelNetwork = network; }
    /// The default routes from before the tunnel had an interface. Before the original gateway is looked for.
    void setEarlierDefaultRoutes(std::vector<DefaultRoute> routes) { m_earlierDefaultRoutes = std::move(routes); }
    /// Addresses that keep their way outside the tunnel. Before setupFullTunnelRouting.
    void setBypassAddresses(const std::set<std::uint32_t> &addresses) { m_bypassAddresses = addresses; }

    /// The first default route in the system's table, whatever its metric and interface. Where that is the tunnel's
    /// own, which leads nowhere but into the tunnel, the first of the earlier ones that is not.
    bool findOriginalGateway(std::uint32_t &gateway, std::uint32_t &interfaceIndex) const;
    /// `splitNextHop` 0 means on-link. A `proxyAddress` of 0 gets no route of its own; a `gatewayOverride` of 0 means
    /// the gateway that is found.
    bool setupFullTunnelRouting(std::uint32_t splitNextHop, std::uint32_t proxyAddress,
                                std::uint32_t gatewayOverride);

    /// A route to the tunnel's interface.
    bool addRoute(std::uint32_t destination, std::uint32_t mask);
    bool deleteRoute(std::uint32_t destination, std::uint32_t mask);
    void removeAllRoutes();

private:
    struct AddedRoute
    {
        std::uint32_t destination = 0;
        std::uint32_t mask = 0;
        std::uint32_t nextHop = 0;
        bool added = true;
    };
    void addProxyBypassRoute(std::uint32_t proxyAddress, std::uint32_t gateway, std::uint32_t interfaceIndex);
    DWORD createProxyRoute(MIB_IPFORWARDROW &row) const;
    void addBypassRoutes(std::uint32_t gateway, std::uint32_t interfaceIndex);
    std::uint32_t metricOfTunnelRoutes() const;

    NET_LUID m_luid{};
    std::uint32_t m_interfaceIndex = 0;
    std::uint32_t m_splitNextHop = 0;
    std::uint32_t m_splitMetric = 0;
    Ipv4Network m_tunnelNetwork;
    std::vector<DefaultRoute> m_earlierDefaultRoutes;
    std::set<std::uint32_t> m_bypassAddresses;
    std::vector<AddedRoute> m_addedRoutes;
    BypassRoutes m_bypassRoutes;
};

} // namespace ruvo
