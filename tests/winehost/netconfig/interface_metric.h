#pragma once

#include "kernel/links.h"

#include <cstdint>
#include <optional>

namespace ruvo::winehost {

/// The IPv4 metric of an interface, which Linux does not have: Windows prefers the route with the lowest sum of its
/// own metric and its interface's. It is kept in the interface's sysctl "tag" (0: automatic, else the metric + 1), a
/// number that Linux keeps for whoever wants one; so it goes with the interface, and a test can set it.
struct InterfaceMetric
{
    std::uint32_t value = 0;
    bool isAutomatic = true;
};

InterfaceMetric metricOf(const Link &link);
/// Nothing: automatic. The routes of the interface get the priorities that follow.
bool setMetric(const Link &link, std::optional<std::uint32_t> value);

/// The sum by which Windows chooses: Linux's priority, but never less than the interface's metric (routes that
/// Linux's own tools made do not know of it).
std::uint32_t effectiveMetric(std::uint32_t priority, const InterfaceMetric &metric);

} // namespace ruvo::winehost
