#include "kernel/routes.h"

#include "kernel/netlink.h"

#include <linux/rtnetlink.h>

namespace ruvo::winehost {

namespace {

constexpr std::uint8_t ipv4 = 2; // AF_INET

NetlinkRequest requestFor(std::uint16_t type, std::uint16_t flags, const Route &route, std::uint32_t routeFlags = 0)
{
    rtmsg head{};
    head.rtm_family = ipv4;
    head.rtm_dst_len = route.prefixLength;
    head.rtm_table = RT_TABLE_MAIN;
    head.rtm_protocol = static_cast<std::uint8_t>(route.maker);
    head.rtm_scope = route.gateway == 0 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    head.rtm_type = RTN_UNICAST;
    head.rtm_flags = routeFlags;
    NetlinkRequest request(type, flags, head);
    if (route.prefixLength > 0)
        request.address(RTA_DST, route.destination);
    if (route.gateway != 0)
        request.address(RTA_GATEWAY, route.gateway);
    request.attribute(RTA_OIF, route.link);
    request.attribute(RTA_PRIORITY, route.priority);
    return request;
}

} // namespace

std::vector<Route> listRoutes()
{
    std::vector<Route> routes;
    rtmsg wanted{};
    wanted.rtm_family = ipv4;
    askKernel(NetlinkRequest(RTM_GETROUTE, NLM_F_DUMP, wanted), [&](const nlmsghdr &message) {
        const auto &head = headerOf<rtmsg>(message);
        if (message.nlmsg_type != RTM_NEWROUTE || head.rtm_table != RT_TABLE_MAIN || head.rtm_type != RTN_UNICAST)
            return;
        Route route;
        route.prefixLength = head.rtm_dst_len;
        route.maker = static_cast<RouteMaker>(head.rtm_protocol);
        for (const NetlinkAttribute &attribute : attributesOf<rtmsg>(message)) {
            switch (attribute.type()) {
            case RTA_DST: route.destination = attribute.address(); break;
            case RTA_GATEWAY: route.gateway = attribute.address(); break;
            case RTA_OIF: route.link = attribute.number(); break;
            case RTA_PRIORITY: route.priority = attribute.number(); break;
            default: break;
            }
        }
        routes.push_back(route);
    });
    return routes;
}

int addRoute(const Route &route)
{
    constexpr std::uint16_t flags = NLM_F_CREATE | NLM_F_APPEND;
    const int error = askKernel(requestFor(RTM_NEWROUTE, flags, route));
    // Windows takes a next hop that lies outside the link's own prefixes; Linux has to be told that it is meant.
    if (error == linux_error::unreachable && route.gateway != 0)
        return askKernel(requestFor(RTM_NEWROUTE, flags, route, RTNH_F_ONLINK));
    return error;
}

int deleteRoute(const Route &route)
{
    return askKernel(requestFor(RTM_DELROUTE, 0, route));
}

} // namespace ruvo::winehost
