#pragma once

#include <cstdint>
#include <vector>

namespace ruvo::winehost {

/// Who made a route, as Linux numbers it.
enum class RouteMaker : std::uint8_t {
    kernel = 2, ///< it came with an address
    boot = 3,   ///< `ip route add`
    administrator = 4,
};

/// One unicast IPv4 route of the main table; addresses in host order.
struct Route
{
    std::uint32_t destination = 0;
    std::uint8_t prefixLength = 0;
    std::uint32_t gateway = 0;  ///< 0: the destination is on the link itself
    std::uint32_t link = 0;     ///< index of its interface
    std::uint32_t priority = 0; ///< the lowest wins
    RouteMaker maker = RouteMaker::administrator;

    bool isSameWay(const Route &other) const
    {
        return destination == other.destination && prefixLength == other.prefixLength && gateway == other.gateway
               && link == other.link;
    }
};

/// In the order of the kernel's table.
std::vector<Route> listRoutes();

/// 0, or Linux's error number. A route beside another of equal destination and priority comes behind it.
int addRoute(const Route &route);
int deleteRoute(const Route &route);

} // namespace ruvo::winehost
