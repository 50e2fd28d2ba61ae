#include "netcfg/route_manager.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/forward_row.h"
#include "netcfg/forward_table.h"

#include <algorithm>
#include <optional>

namespace ruvo {

namespace {

constexpr std::uint32_t hostMask = 0xFFFFFFFF;
constexpr std::uint32_t halfMask = 0x80000000;
constexpr std::uint32_t firstHalf = 0x00000000;
constexpr std::uint32_t secondHalf = 0x80000000;
constexpr std::uint32_t loopbackNetwork = 127;
constexpr DWORD proxyRouteMetric = 1;

bool isAdded(DWORD error)
{
    return error == NO_ERROR || error == ERROR_OBJECT_ALREADY_EXISTS;
}

std::optional<std::uint32_t> metricOfInterface(std::uint32_t index)
{
    MIB_IPINTERFACE_ROW row;
    InitializeIpInterfaceEntry(&row);
    row.Family = AF_INET;
    row.InterfaceIndex = index;
    return GetIpInterfaceEntry(&row) == NO_ERROR ? std::optional<std::uint32_t>(row.Metric) : std::nullopt;
}

} // namespace

RouteManager::~RouteManager()
{
    removeAllRoutes();
}

void RouteManager::setInterface(std::uint64_t luid)
{
    m_luid.Value = luid;
    NET_IFINDEX index = 0;
    m_interfaceIndex = ConvertInterfaceLuidToIndex(&m_luid, &index) == NO_ERROR ? index : 0;
}

bool RouteManager::findOriginalGateway(std::uint32_t &gateway, std::uint32_t &interfaceIndex) const
{
    const std::vector<DefaultRoute> routes = defaultRoutes();
    if (routes.empty())
        return false;
    const auto isElsewhere = [this](const DefaultRoute &route) { return route.interfaceIndex != m_interfaceIndex; };
    DefaultRoute original = routes.front();
    if (m_interfaceIndex != 0 && !isElsewhere(original)) {
        // The first of all may have been the tunnel's own then as well: that of an adapter that was left behind.
        const auto earlier = std::ranges::find_if(m_earlierDefaultRoutes, isElsewhere);
        if (earlier != m_earlierDefaultRoutes.end())
            original = *earlier;
    }
    gateway = original.gateway;
    interfaceIndex = original.interfaceIndex;
    return true;
}

bool RouteManager::setupFullTunnelRouting(std::uint32_t splitNextHop, std::uint32_t proxyAddress,
                                          std::uint32_t gatewayOverride)
{
    std::uint32_t gateway = 0;
    std::uint32_t originalIndex = 0;
    if (!findOriginalGateway(gateway, originalIndex)) {
        qCWarning(lcRuvod) << "Failed to get original default gateway";
        return false;
    }
    if (gatewayOverride != 0)
        gateway = gatewayOverride;
    qCDebug(lcRuvod) << "Original gateway:" << formatIpv4(gateway) << "(ifIndex=" << originalIndex << ")";
    qCDebug(lcRuvod) << "Tunnel interface index:" << m_interfaceIndex;

    if (proxyAddress >> 24 == loopbackNetwork)
        qCDebug(lcRuvod) << "Skipping proxy bypass route for localhost";
    else if (proxyAddress != 0)
        addProxyBypassRoute(proxyAddress, gateway, originalIndex);
    addBypassRoutes(gateway, originalIndex);

    qCDebug(lcRuvod) << "Adding split default routes as DIRECT (on-link) routes";
    m_splitNextHop = splitNextHop;
    m_splitMetric = metricOfTunnelRoutes();
    qCDebug(lcRuvod) << "Using CreateIpForwardEntry2 API to add routes...";
    if (!addRoute(firstHalf, halfMask)) {
        qCWarning(lcRuvod) << "Failed to add first split route (0.0.0.0/1)";
        return false;
    }
    if (!addRoute(secondHalf, halfMask)) {
        qCWarning(lcRuvod) << "Failed to add second split route (128.0.0.0/1)";
        return false;
    }
    return true;
}

void RouteManager::addProxyBypassRoute(std::uint32_t proxyAddress, std::uint32_t gateway,
                                       std::uint32_t interfaceIndex)
{
    MIB_IPFORWARDROW row{};
    row.dwForwardDest = htonl(proxyAddress);
    row.dwForwardMask = hostMask;
    row.dwForwardNextHop = htonl(gateway);
    row.dwForwardIfIndex = interfaceIndex;
    row.dwForwardType = MIB_IPROUTE_TYPE_INDIRECT;
    row.dwForwardProto = MIB_IPPROTO_NETMGMT;
    row.dwForwardMetric1 = proxyRouteMetric;
    const DWORD error = createProxyRoute(row);
    if (!isAdded(error)) {
        qCWarning(lcRuvod) << "Warning: Failed to add proxy bypass route:" << error;
        return;
    }
    m_addedRoutes.push_back({proxyAddress, hostMask, gateway});
    qCDebug(lcRuvod) << "Added proxy bypass route:" << formatIpv4(proxyAddress) << "via" << formatIpv4(gateway);
}

// The older call refuses a metric below the interface's own, which few interfaces have as low as 1. A proxy that is
// reached without the gateway does without the route: there it would be led astray.
DWORD RouteManager::createProxyRoute(MIB_IPFORWARDROW &row) const
{
    const DWORD error = CreateIpForwardEntry(&row);
    if (error != ERROR_BAD_ARGUMENTS)
        return error;
    if (!needsBypassRoute(ntohl(row.dwForwardDest), ForwardTable().rows(), row.dwForwardIfIndex, m_tunnelNetwork))
        return error;
    const std::optional<std::uint32_t> metric = metricOfInterface(row.dwForwardIfIndex);
    if (!metric)
        return error;
    row.dwForwardMetric1 = *metric;
    return CreateIpForwardEntry(&row);
}

void RouteManager::addBypassRoutes(std::uint32_t gateway, std::uint32_t interfaceIndex)
{
    if (m_bypassAddresses.empty())
        return;
    if (interfaceIndex == m_interfaceIndex) {
        qCWarning(lcRuvod) << "Default route leads into the tunnel itself, skipping bypass routes, ifIndex:"
                           << interfaceIndex;
        return;
    }
    const ForwardTable table; // empty if it cannot be read: then each gets its route
    for (const std::uint32_t address : m_bypassAddresses) {
        if (needsBypassRoute(address, table.rows(), interfaceIndex, m_tunnelNetwork))
            m_bypassRoutes.add({address, gateway, interfaceIndex});
        else
            qCDebug(lcRuvod) << "No bypass route, reached without the gateway:" << formatIpv4(address);
    }
}

std::uint32_t RouteManager::metricOfTunnelRoutes() const
{
    const ForwardTable table;
    for (const MIB_IPFORWARDROW &row : table.rows()) {
        if (row.dwForwardIfIndex == m_interfaceIndex && row.dwForwardProto == MIB_IPPROTO_NETMGMT) {
            qCDebug(lcRuvod) << "Using metric from existing interface routes:" << row.dwForwardMetric1;
            return row.dwForwardMetric1;
        }
    }
    return 0;
}

bool RouteManager::addRoute(std::uint32_t destination, std::uint32_t mask)
{
    MIB_IPFORWARD_ROW2 row = forwardRow(destination, mask, m_splitNextHop);
    row.InterfaceLuid = m_luid;
    row.InterfaceIndex = m_interfaceIndex;
    row.Metric = m_splitMetric;
    row.Protocol = RouteProtocolNetMgmt;
    const DWORD error = CreateIpForwardEntry2(&row);
    if (!isAdded(error)) {
        qCWarning(lcRuvod) << "Failed to add route:" << error;
        return false;
    }
    m_addedRoutes.push_back({destination, mask, m_splitNextHop});
    return true;
}

bool RouteManager::deleteRoute(std::uint32_t destination, std::uint32_t mask)
{
    MIB_IPFORWARD_ROW2 row = forwardRow(destination, mask, 0);
    row.InterfaceLuid = m_luid;
    row.InterfaceIndex = m_interfaceIndex;
    const DWORD error = DeleteIpForwardEntry2(&row);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "Failed to delete route:" << error;
        return false;
    }
    return true;
}

// Every recorded route is deleted from the tunnel's interface, the proxy's own too, which is not there: it stays.
void RouteManager::removeAllRoutes()
{
    for (const AddedRoute &route : m_addedRoutes) {
        deleteRoute(route.destination, route.mask);
        qCDebug(lcRuvod) << "Removed route:" << formatIpv4(route.destination) << "/" << formatIpv4(route.mask);
    }
    m_addedRoutes.clear();
    m_bypassRoutes.removeAll();
}

} // namespace ruvo
