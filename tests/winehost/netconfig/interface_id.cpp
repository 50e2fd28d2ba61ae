#include "netconfig/interface_id.h"

#include "wintun/adapter_identity.h"

#include <cstring>

namespace ruvo::winehost {

NET_LUID luidOf(const Link &link)
{
    NET_LUID luid{};
    luid.Info.NetLuidIndex = link.index & 0xFFFFFF;
    if (AdapterIdentity::fromAlias(link.alias))
        luid.Info.IfType = IF_TYPE_PROP_VIRTUAL;
    else if (link.isLoopback())
        luid.Info.IfType = IF_TYPE_SOFTWARE_LOOPBACK;
    else
        luid.Info.IfType = link.isEthernet() ? IF_TYPE_ETHERNET_CSMACD : IF_TYPE_OTHER;
    return luid;
}

GUID guidOf(const Link &link)
{
    if (const auto identity = AdapterIdentity::fromAlias(link.alias))
        return identity->guid;
    GUID guid{link.index, 0, 0, {}};
    std::memcpy(guid.Data4 + 2, "NetDev", 6);
    return guid;
}

std::optional<Link> findLink(const NET_LUID &luid, NET_IFINDEX index)
{
    if (luid.Value == 0)
        return linkByIndex(index);
    auto link = linkByIndex(static_cast<std::uint32_t>(luid.Info.NetLuidIndex));
    if (link && luidOf(*link).Value == luid.Value)
        return link;
    return std::nullopt;
}

std::optional<Link> findLink(const GUID &guid)
{
    for (Link &link : listLinks()) {
        if (IsEqualGUID(guidOf(link), guid))
            return std::move(link);
    }
    return std::nullopt;
}

} // namespace ruvo::winehost
