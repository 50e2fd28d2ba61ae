#include "netcfg/route_manager.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/forward_table.h"
#include "netcfg/inet_address.h"

#include <bit>

namespace ruvo {

namespace {

constexpr std::uint32_t hostMask = 0xFFFFFFFF;
constexpr std::uint32_t halfMask = 0x80000000;
constexpr std::uint32_t firstHalf = 0x00000000;
constexpr std::uint32_t secondHalf = 0x80000000;
constexpr std::uint32_t loopbackNetwork = 127;
constexpr DWORD proxyRouteMetric = 1;

MIB_IPFORWARD_ROW2 routeRow(std::uint32_t destination, std::uint32_t mask, std::uint32_t nextHop)
{
    MIB_IPFORWARD_ROW2 row;
    InitializeIpForwardEntry(&row);
    row.DestinationPrefix.Prefix = inetAddress(destination);
    row.DestinationPrefix.PrefixLength = static_cast<UINT8>(std::countl_one(mask));
    row.NextHop = inetAddress(nextHop);
    return row;
}

bool isAdded(DWORD error)
{
    return error == NO_ERROR || error == ERROR_OBJECT_ALREADY_EXISTS;
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
    const ForwardTable table;
    for (const MIB_IPFORWARDROW &row : table.rows()) {
        if (row.dwForwardDest != 0)
            continue;
        gateway = ntohl(row.dwForwardNextHop);
        interfaceIndex = row.dwForwardIfIndex;
        return true;
    }
    return false;
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
    const DWORD error = CreateIpForwardEntry(&row);
    if (!isAdded(error)) {
        qCWarning(lcRuvod) << "Warning: Failed to add proxy bypass route:" << error;
        return;
    }
    m_addedRoutes.push_back({proxyAddress, hostMask, gateway});
    qCDebug(lcRuvod) << "Added proxy bypass route:" << formatIpv4(proxyAddress) << "via" << formatIpv4(gateway);
}

// The newer call takes a metric of 0; the older one refuses metrics below the interface's own.
void RouteManager::addBypassRoutes(std::uint32_t gateway, std::uint32_t interfaceIndex)
{
    if (interfaceIndex == m_interfaceIndex) {
        if (!m_bypassAddresses.empty()) {
            qCWarning(lcRuvod) << "Default route leads into the tunnel itself, skipping bypass routes, ifIndex:"
                               << interfaceIndex;
        }
        return;
    }
    for (const std::uint32_t address : m_bypassAddresses) {
        MIB_IPFORWARD_ROW2 row = routeRow(address, hostMask, gateway);
        row.InterfaceIndex = interfaceIndex;
        row.Metric = 0;
        row.Protocol = RouteProtocolNetMgmt;
        const DWORD error = CreateIpForwardEntry2(&row);
        if (error == NO_ERROR) {
            m_bypassRoutes.push_back({address, gateway, interfaceIndex});
            qCDebug(lcRuvod) << "Added bypass route:" << formatIpv4(address) << "via" << formatIpv4(gateway);
        } else if (error != ERROR_OBJECT_ALREADY_EXISTS) { // somebody else's stays theirs
            qCWarning(lcRuvod) << "Failed to add bypass route:" << formatIpv4(address) << "error:" << error;
        }
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
    MIB_IPFORWARD_ROW2 row = routeRow(destination, mask, m_splitNextHop);
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
    MIB_IPFORWARD_ROW2 row = routeRow(destination, mask, 0);
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
    removeBypassRoutes();
}

void RouteManager::removeBypassRoutes()
{
    for (const BypassRoute &route : m_bypassRoutes) {
        MIB_IPFORWARD_ROW2 row = routeRow(route.destination, hostMask, route.nextHop);
        row.InterfaceIndex = route.interfaceIndex;
        const DWORD error = DeleteIpForwardEntry2(&row);
        if (error != NO_ERROR) {
            qCWarning(lcRuvod) << "Failed to delete bypass route:" << formatIpv4(route.destination)
                               << "error:" << error;
        } else {
            qCDebug(lcRuvod) << "Removed bypass route:" << formatIpv4(route.destination);
        }
    }
    m_bypassRoutes.clear();
}

} // namespace ruvo
