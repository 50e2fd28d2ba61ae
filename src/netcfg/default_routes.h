#pragma once

#include <cstdint>
#include <vector>

namespace ruvo {

/// A way to everywhere.
struct DefaultRoute
{
    std::uint32_t gateway = 0; ///< in host order; 0: on-link
    std::uint32_t interfaceIndex = 0;

    bool operator==(const DefaultRoute &) const = default;
};

/// The system's routes with the destination 0.0.0.0 in the system's order, whatever their interfaces and metrics.
/// Empty if the system cannot tell. Any thread.
std::vector<DefaultRoute> defaultRoutes();

} // namespace ruvo
