// Routes through the newer calls, on the namespace's real table.

#include "kernel/routes.h"
#include "netconfig/interface_metric.h"
#include "netconfig/network_call.h"

#include <algorithm>
#include <expected>

namespace {

using namespace ruvo::winehost;

constexpr ULONG unset = ~ULONG{0};

/// What both calls have in common, written down; the priority is left open.
std::expected<Route, DWORD> routeOf(NetworkCall &call, const MIB_IPFORWARD_ROW2 &row)
{
    const SOCKADDR_INET &prefix = row.DestinationPrefix.Prefix;
    if (prefix.si_family == AF_INET6)
        return std::unexpected<DWORD>(ERROR_NOT_SUPPORTED);
    Route route;
    route.destination = ipv4Of(prefix);
    route.prefixLength = row.DestinationPrefix.PrefixLength;
    route.gateway = ipv4Of(row.NextHop);
    call.addPrefix("destination", route.destination, route.prefixLength);
    call.addAddress("next-hop", route.gateway);
    if (prefix.si_family != AF_INET || !isIpv4OrUnset(row.NextHop) || route.prefixLength > 32
        || (route.destination & ~maskOf(route.prefixLength)) != 0
        || (row.InterfaceLuid.Value == 0 && row.InterfaceIndex == 0)) {
        return std::unexpected<DWORD>(ERROR_INVALID_PARAMETER);
    }
    const auto link = call.link(row.InterfaceLuid, row.InterfaceIndex);
    if (!link)
        return std::unexpected<DWORD>(ERROR_NOT_FOUND);
    route.link = link->index;
    return route;
}

DWORD create(NetworkCall &call, const MIB_IPFORWARD_ROW2 &row)
{
    call.add("metric", row.Metric).add("protocol", static_cast<int>(row.Protocol));
    auto route = routeOf(call, row);
    if (!route)
        return route.error();
    if (row.Metric == unset || row.Protocol != RouteProtocolNetMgmt)
        return ERROR_INVALID_PARAMETER;
    if (std::ranges::any_of(listRoutes(), [&](const Route &other) { return other.isSameWay(*route); }))
        return ERROR_OBJECT_ALREADY_EXISTS;
    const auto link = linkByIndex(route->link);
    route->priority = row.Metric + (link ? metricOf(*link).value : 0);
    return windowsError(addRoute(*route));
}

DWORD remove(NetworkCall &call, const MIB_IPFORWARD_ROW2 &row)
{
    const auto route = routeOf(call, row);
    if (!route)
        return route.error();
    for (const Route &existing : listRoutes()) {
        if (existing.isSameWay(*route))
            return windowsError(deleteRoute(existing));
    }
    return ERROR_NOT_FOUND;
}

} // namespace

extern "C" {

VOID NETIOAPI_API_ InitializeIpForwardEntry(PMIB_IPFORWARD_ROW2 row)
{
    const JournalEntry entry("InitializeIpForwardEntry");
    *row = {};
    row->SitePrefixLength = 255;
    row->ValidLifetime = unset;
    row->PreferredLifetime = unset;
    row->Metric = unset;
    row->Loopback = TRUE;
    row->AutoconfigureAddress = TRUE;
    row->Immortal = TRUE;
}

NETIO_STATUS NETIOAPI_API_ CreateIpForwardEntry2(const MIB_IPFORWARD_ROW2 *row)
{
    NetworkCall call("CreateIpForwardEntry2");
    return call.finish([&] { return row ? create(call, *row) : ERROR_INVALID_PARAMETER; });
}

NETIO_STATUS NETIOAPI_API_ DeleteIpForwardEntry2(const MIB_IPFORWARD_ROW2 *row)
{
    NetworkCall call("DeleteIpForwardEntry2");
    return call.finish([&] { return row ? remove(call, *row) : ERROR_INVALID_PARAMETER; });
}

} // extern "C"
