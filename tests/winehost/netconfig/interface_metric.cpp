#include "netconfig/interface_metric.h"

#include "kernel/interface_option.h"
#include "kernel/routes.h"

#include <algorithm>

namespace ruvo::winehost {

namespace {

/// What Windows chooses by kind and speed.
std::uint32_t automaticMetric(const Link &link)
{
    if (link.isLoopback())
        return 75;
    return link.isTun() ? 5 : 25;
}

void moveRoutes(const Link &link, const InterfaceMetric &before, const InterfaceMetric &after)
{
    for (const Route &route : listRoutes()) {
        if (route.link != link.index || route.maker == RouteMaker::kernel)
            continue;
        Route moved = route;
        moved.priority = effectiveMetric(route.priority, before) - before.value + after.value;
        // First the new one: there is no moment without.
        if (moved.priority != route.priority && addRoute(moved) == 0)
            deleteRoute(route);
    }
}

} // namespace

InterfaceMetric metricOf(const Link &link)
{
    const std::uint32_t tag = interfaceOption(link.name, "tag").value_or(0);
    if (tag == 0)
        return {automaticMetric(link), true};
    return {tag - 1, false};
}

bool setMetric(const Link &link, std::optional<std::uint32_t> value)
{
    const InterfaceMetric before = metricOf(link);
    if (!setInterfaceOption(link.name, "tag", value ? *value + 1 : 0))
        return false;
    moveRoutes(link, before, metricOf(link));
    return true;
}

std::uint32_t effectiveMetric(std::uint32_t priority, const InterfaceMetric &metric)
{
    return std::max(priority, metric.value);
}

} // namespace ruvo::winehost
