// Routes through the older calls.

#include "kernel/addresses.h"
#include "kernel/routes.h"
#include "library/bench_folder.h"
#include "library/text.h"
#include "netconfig/interface_metric.h"
#include "netconfig/network_call.h"

#include <algorithm>
#include <bit>
#include <map>
#include <tuple>

namespace {

using namespace ruvo::winehost;

DWORD create(NetworkCall &call, const MIB_IPFORWARDROW &row)
{
    Route route;
    route.destination = std::byteswap(static_cast<std::uint32_t>(row.dwForwardDest));
    route.gateway = std::byteswap(static_cast<std::uint32_t>(row.dwForwardNextHop));
    const std::uint32_t mask = std::byteswap(static_cast<std::uint32_t>(row.dwForwardMask));
    call.addAddress("destination", route.destination);
    call.addAddress("mask", mask);
    call.addAddress("next-hop", route.gateway);
    call.add("index", row.dwForwardIfIndex).add("type", static_cast<int>(row.dwForwardType));
    call.add("protocol", static_cast<int>(row.dwForwardProto)).add("metric", row.dwForwardMetric1);

    const auto prefixLength = prefixLengthOf(mask);
    if (!prefixLength || (route.destination & ~mask) != 0 || row.dwForwardProto != MIB_IPPROTO_NETMGMT)
        return ERROR_INVALID_PARAMETER;
    const auto link = call.link(NET_LUID{}, row.dwForwardIfIndex);
    if (!link)
        return ERROR_INVALID_PARAMETER;
    // This metric is the whole sum: less than the interface's share cannot be.
    if (row.dwForwardMetric1 < metricOf(*link).value)
        return ERROR_BAD_ARGUMENTS;
    route.prefixLength = *prefixLength;
    route.link = link->index;
    route.priority = row.dwForwardMetric1;
    // In these calls the interface's own address as next hop means that the destination is on the link.
    const auto isOwn = [&](const InterfaceAddress &own) {
        return own.link == link->index && own.address == route.gateway;
    };
    if (std::ranges::any_of(listAddresses(), isOwn))
        route.gateway = 0;
    if (std::ranges::any_of(listRoutes(), [&](const Route &other) { return other.isSameWay(route); }))
        return ERROR_OBJECT_ALREADY_EXISTS;
    return windowsError(addRoute(route));
}

/// The line "default-routes reversed" in `netconfig.txt`: Windows lists several default routes in no certain order.
/// Without it the interface that was there first comes first.
bool areDefaultRoutesReversed()
{
    for (const auto &words : wordsOfLines(readBenchFile(L"netconfig.txt").value_or(std::string()))) {
        if (words == std::vector<std::string>{"default-routes", "reversed"})
            return true;
    }
    return false;
}

MIB_IPFORWARDROW rowOf(const Route &route, std::uint32_t metric)
{
    MIB_IPFORWARDROW row{};
    row.dwForwardDest = std::byteswap(route.destination);
    row.dwForwardMask = std::byteswap(maskOf(route.prefixLength));
    row.dwForwardNextHop = std::byteswap(route.gateway);
    row.dwForwardIfIndex = route.link;
    row.dwForwardType = route.gateway == 0 ? MIB_IPROUTE_TYPE_DIRECT : MIB_IPROUTE_TYPE_INDIRECT;
    row.dwForwardProto = route.maker == RouteMaker::kernel ? MIB_IPPROTO_LOCAL : MIB_IPPROTO_NETMGMT;
    row.dwForwardMetric1 = metric;
    for (DWORD *other : {&row.dwForwardMetric2, &row.dwForwardMetric3, &row.dwForwardMetric4, &row.dwForwardMetric5})
        *other = MIB_IPROUTE_METRIC_UNUSED;
    return row;
}

std::vector<MIB_IPFORWARDROW> rows()
{
    std::vector<Route> routes = listRoutes();
    std::map<std::uint32_t, InterfaceMetric> metrics;
    for (const Link &link : listLinks()) {
        metrics[link.index] = metricOf(link);
        if (link.isLoopback()) // Linux keeps these elsewhere
            routes.push_back({0x7F000000, 8, 0, link.index, 0, RouteMaker::kernel});
    }
    std::ranges::stable_sort(
        routes, {}, [](const Route &route) { return std::tuple(route.destination, route.prefixLength, route.link); });
    if (areDefaultRoutesReversed()) {
        const auto isDefault = [](const Route &route) { return route.prefixLength == 0; };
        std::ranges::reverse(routes.begin(), std::ranges::find_if_not(routes, isDefault));
    }
    std::vector<MIB_IPFORWARDROW> table;
    for (const Route &route : routes)
        table.push_back(rowOf(route, effectiveMetric(route.priority, metrics[route.link])));
    return table;
}

DWORD fill(MIB_IPFORWARDTABLE *table, ULONG *size, const std::vector<MIB_IPFORWARDROW> &found)
{
    if (found.empty())
        return ERROR_NO_DATA;
    const ULONG needed =
        static_cast<ULONG>(sizeof(MIB_IPFORWARDTABLE) + (found.size() - 1) * sizeof(MIB_IPFORWARDROW));
    const bool isEnough = table && *size >= needed;
    *size = needed;
    if (!isEnough)
        return ERROR_INSUFFICIENT_BUFFER;
    table->dwNumEntries = static_cast<DWORD>(found.size());
    std::ranges::copy(found, table->table);
    return NO_ERROR;
}

} // namespace

extern "C" {

DWORD WINAPI CreateIpForwardEntry(PMIB_IPFORWARDROW row)
{
    NetworkCall call("CreateIpForwardEntry");
    return call.finish([&] { return row ? create(call, *row) : ERROR_INVALID_PARAMETER; });
}

// Sorted by destination in any case, which is how Windows lists the table unasked.
DWORD WINAPI GetIpForwardTable(PMIB_IPFORWARDTABLE table, PULONG size, BOOL)
{
    NetworkCall call("GetIpForwardTable");
    return call.finish([&]() -> DWORD {
        if (!size)
            return ERROR_INVALID_PARAMETER;
        const auto found = rows();
        call.add("rows", found.size());
        return fill(table, size, found);
    });
}

} // extern "C"
