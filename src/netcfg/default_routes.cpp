#include "netcfg/default_routes.h"

#include "netcfg/forward_table.h"

namespace ruvo {

std::vector<DefaultRoute> defaultRoutes()
{
    std::vector<DefaultRoute> routes;
    const ForwardTable table;
    for (const MIB_IPFORWARDROW &row : table.rows()) {
        if (row.dwForwardDest == 0)
            routes.push_back({ntohl(row.dwForwardNextHop), row.dwForwardIfIndex});
    }
    return routes;
}

} // namespace ruvo
