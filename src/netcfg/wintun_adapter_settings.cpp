// The adapter's address, gateway, metric and DNS.

#include "netcfg/wintun_adapter.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/dns_settings.h"
#include "netcfg/inet_address.h"

namespace ruvo {

namespace {

constexpr ULONG tunnelMtu = 1500;

DWORD readInterfaceRow(const NET_LUID &luid, MIB_IPINTERFACE_ROW &row)
{
    InitializeIpInterfaceEntry(&row);
    row.Family = AF_INET;
    row.InterfaceLuid = luid;
    return GetIpInterfaceEntry(&row);
}

} // namespace

std::optional<WintunAdapter::InterfaceState> WintunAdapter::interfaceState() const
{
    MIB_IPINTERFACE_ROW row;
    if (readInterfaceRow(m_luid, row) != NO_ERROR)
        return std::nullopt;
    return InterfaceState{
        .metric = row.Metric,
        .isMetricAutomatic = row.UseAutomaticMetric != FALSE,
        .isForwarding = row.ForwardingEnabled != FALSE,
    };
}

bool WintunAdapter::setIpAddress(std::uint32_t address, std::uint8_t prefixLength)
{
    MIB_UNICASTIPADDRESS_ROW row;
    InitializeUnicastIpAddressEntry(&row);
    row.Address = inetAddress(address);
    row.InterfaceLuid = m_luid;
    row.OnLinkPrefixLength = prefixLength;
    row.DadState = IpDadStatePreferred;
    const DWORD error = CreateUnicastIpAddressEntry(&row);
    if (error != NO_ERROR && error != ERROR_OBJECT_ALREADY_EXISTS) {
        qCWarning(lcRuvod) << "Failed to set IP address:" << error;
        return false;
    }
    return true;
}

bool WintunAdapter::setGateway(std::uint32_t gateway)
{
    if (!requireAdapter())
        return false;
    MIB_IPFORWARD_ROW2 row;
    InitializeIpForwardEntry(&row);
    row.InterfaceLuid = m_luid;
    row.DestinationPrefix.Prefix = inetAddress(0);
    row.DestinationPrefix.PrefixLength = 0;
    row.NextHop = inetAddress(gateway);
    row.Metric = 0;
    row.Protocol = RouteProtocolNetMgmt;
    const DWORD error = CreateIpForwardEntry2(&row);
    if (error != NO_ERROR && error != ERROR_OBJECT_ALREADY_EXISTS) {
        qCWarning(lcRuvod) << "Failed to set gateway:" << error;
        return false;
    }
    qCDebug(lcRuvod).nospace() << "Set interface gateway to " << formatIpv4(gateway);
    return true;
}

bool WintunAdapter::setMetric(std::uint32_t metric)
{
    if (!requireAdapter())
        return false;
    MIB_IPINTERFACE_ROW row;
    DWORD error = readInterfaceRow(m_luid, row);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "[RUVO-TUN] Failed to get interface entry:" << error;
        return false;
    }
    qCWarning(lcRuvod) << "[RUVO-TUN] Current metric:" << row.Metric
                       << "AutoMetric:" << static_cast<bool>(row.UseAutomaticMetric);
    row.UseAutomaticMetric = FALSE;
    row.Metric = metric;
    row.ForwardingEnabled = TRUE;
    row.SitePrefixLength = 0; // what the query fills in is refused by the call below
    row.NlMtu = tunnelMtu;
    row.DisableDefaultRoutes = FALSE;
    error = SetIpInterfaceEntry(&row);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "[RUVO-TUN] Failed to set interface metric:" << error;
        return false;
    }
    qCWarning(lcRuvod) << "[RUVO-TUN] ✓ Set interface metric to" << metric << "with ForwardingEnabled and MTU"
                       << tunnelMtu;
    return true;
}

bool WintunAdapter::setDnsServers(const std::string &primary, const std::string &secondary)
{
    return requireAdapter() && writeDnsServers(m_luid, primary, secondary);
}

bool WintunAdapter::setIpv6DnsServers(const std::string &primary, const std::string &secondary)
{
    return requireAdapter() && writeIpv6DnsServers(m_luid, primary, secondary);
}

} // namespace ruvo
