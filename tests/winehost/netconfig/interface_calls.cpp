// The IPv4 settings of an interface: metric, MTU, forwarding.

#include "kernel/interface_option.h"
#include "netconfig/interface_id.h"
#include "netconfig/interface_metric.h"
#include "netconfig/network_call.h"

namespace {

using namespace ruvo::winehost;

constexpr ULONG unset = ~ULONG{0};
constexpr ULONG smallestMtu = 352; // of Windows' IPv4
constexpr ULONG longestPrefix = 32;

DWORD check(NetworkCall &call, const MIB_IPINTERFACE_ROW &row)
{
    call.add("family", row.Family);
    if (row.Family == AF_INET6)
        return ERROR_NOT_SUPPORTED;
    if (row.Family != AF_INET || (row.InterfaceLuid.Value == 0 && row.InterfaceIndex == 0))
        return ERROR_INVALID_PARAMETER;
    return NO_ERROR;
}

void fill(MIB_IPINTERFACE_ROW &row, const Link &link)
{
    const InterfaceMetric metric = metricOf(link);
    row = {};
    row.Family = AF_INET;
    row.InterfaceLuid = luidOf(link);
    row.InterfaceIndex = link.index;
    row.MaxReassemblySize = 65535;
    row.MinRouterAdvertisementInterval = 200;
    row.MaxRouterAdvertisementInterval = 600;
    row.ForwardingEnabled = interfaceOption(link.name, "forwarding").value_or(0) != 0;
    row.UseAutomaticMetric = metric.isAutomatic;
    row.UseNeighborUnreachabilityDetection = TRUE;
    row.RouterDiscoveryBehavior = RouterDiscoveryDhcp;
    row.DadTransmits = 3;
    row.BaseReachableTime = 30000;
    row.RetransmitTime = 1000;
    row.PathMtuDiscoveryTimeout = 600000;
    row.LinkLocalAddressBehavior = LinkLocalDelayed;
    row.LinkLocalAddressTimeout = 6500;
    row.SitePrefixLength = 64; // which setting the entry as it is refuses
    row.Metric = metric.value;
    row.NlMtu = link.mtu;
    row.Connected = link.isConnected();
    row.SupportsNeighborDiscovery = TRUE;
    row.SupportsRouterDiscovery = TRUE;
    row.ReachableTime = 30000;
}

DWORD get(NetworkCall &call, MIB_IPINTERFACE_ROW &row)
{
    if (const DWORD error = check(call, row); error != NO_ERROR)
        return error;
    const auto link = call.link(row.InterfaceLuid, row.InterfaceIndex);
    if (!link)
        return ERROR_NOT_FOUND;
    fill(row, *link);
    call.add("metric", row.Metric).add("automatic-metric", row.UseAutomaticMetric != FALSE);
    call.add("mtu", row.NlMtu).add("forwarding", row.ForwardingEnabled != FALSE);
    return NO_ERROR;
}

DWORD set(NetworkCall &call, const MIB_IPINTERFACE_ROW &row)
{
    if (const DWORD error = check(call, row); error != NO_ERROR)
        return error;
    const auto link = call.link(row.InterfaceLuid, row.InterfaceIndex);
    call.add("metric", row.Metric).add("automatic-metric", row.UseAutomaticMetric != FALSE);
    call.add("mtu", row.NlMtu).add("forwarding", row.ForwardingEnabled != FALSE);
    call.add("site-prefix-length", row.SitePrefixLength);
    call.add("disable-default-routes", row.DisableDefaultRoutes != FALSE);
    if (!link)
        return ERROR_NOT_FOUND;
    if (row.SitePrefixLength > longestPrefix || row.NlMtu < smallestMtu || row.NlMtu > link->largestMtu
        || (!row.UseAutomaticMetric && row.Metric == unset)) {
        return ERROR_INVALID_PARAMETER;
    }
    if (row.DisableDefaultRoutes)
        return ERROR_NOT_SUPPORTED;
    if (row.NlMtu != link->mtu) {
        if (const int error = changeLink(link->index, {.mtu = row.NlMtu}); error != 0)
            return windowsError(error);
    }
    const std::optional<std::uint32_t> metric = row.UseAutomaticMetric ? std::nullopt : std::optional(row.Metric);
    if (!setMetric(*link, metric) || !setInterfaceOption(link->name, "forwarding", row.ForwardingEnabled ? 1 : 0))
        return ERROR_ACCESS_DENIED;
    return NO_ERROR;
}

} // namespace

extern "C" {

VOID NETIOAPI_API_ InitializeIpInterfaceEntry(PMIB_IPINTERFACE_ROW row)
{
    const JournalEntry entry("InitializeIpInterfaceEntry");
    *row = {};
    row->SitePrefixLength = unset;
    row->Metric = unset;
    row->NlMtu = unset;
    row->RouterDiscoveryBehavior = RouterDiscoveryUnchanged;
    row->LinkLocalAddressBehavior = LinkLocalUnchanged;
}

NETIO_STATUS NETIOAPI_API_ GetIpInterfaceEntry(PMIB_IPINTERFACE_ROW row)
{
    NetworkCall call("GetIpInterfaceEntry");
    return call.finish([&] { return row ? get(call, *row) : ERROR_INVALID_PARAMETER; });
}

NETIO_STATUS NETIOAPI_API_ SetIpInterfaceEntry(PMIB_IPINTERFACE_ROW row)
{
    NetworkCall call("SetIpInterfaceEntry");
    return call.finish([&] { return row ? set(call, *row) : ERROR_INVALID_PARAMETER; });
}

} // extern "C"
