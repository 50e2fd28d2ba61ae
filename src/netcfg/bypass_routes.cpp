#include "netcfg/bypass_routes.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/forward_row.h"

namespace ruvo {

namespace {

constexpr std::uint32_t hostMask = 0xFFFFFFFF;

MIB_IPFORWARD_ROW2 rowOf(const BypassRoute &route)
{
    MIB_IPFORWARD_ROW2 row = forwardRow(route.destination, hostMask, route.nextHop);
    row.InterfaceIndex = route.interfaceIndex;
    return row;
}

/// The route was gone already, or its whole interface.
bool isGone(DWORD error)
{
    return error == ERROR_NOT_FOUND || error == ERROR_FILE_NOT_FOUND;
}

/// The error of Windows. The note stays only where the route may have stayed.
DWORD remove(const BypassRoute &route, const BypassRouteNotes &notes)
{
    MIB_IPFORWARD_ROW2 row = rowOf(route);
    const DWORD error = DeleteIpForwardEntry2(&row);
    if (error == NO_ERROR || isGone(error))
        notes.remove(route);
    return error;
}

} // namespace

// The newer call takes a metric of 0; the older one refuses metrics below the interface's own. The note comes behind
// the route: written before, and the process killed in between, it would name a route of somebody else's.
void BypassRoutes::add(const BypassRoute &route)
{
    m_routes.reserve(m_routes.size() + 1); // a route that cannot be remembered is not made
    MIB_IPFORWARD_ROW2 row = rowOf(route);
    row.Metric = 0;
    row.Protocol = RouteProtocolNetMgmt;
    const DWORD error = CreateIpForwardEntry2(&row);
    if (error == NO_ERROR) {
        m_routes.push_back(route);
        m_notes.add(route);
        qCDebug(lcRuvod) << "Added bypass route:" << formatIpv4(route.destination) << "via"
                         << formatIpv4(route.nextHop);
    } else if (error != ERROR_OBJECT_ALREADY_EXISTS) {
        qCWarning(lcRuvod) << "Failed to add bypass route:" << formatIpv4(route.destination) << "error:" << error;
    }
}

void BypassRoutes::removeAll()
{
    for (const BypassRoute &route : m_routes) {
        const DWORD error = remove(route, m_notes);
        if (error != NO_ERROR) {
            qCWarning(lcRuvod) << "Failed to delete bypass route:" << formatIpv4(route.destination)
                               << "error:" << error;
        } else {
            qCDebug(lcRuvod) << "Removed bypass route:" << formatIpv4(route.destination);
        }
    }
    m_routes.clear();
}

void removeLeftoverBypassRoutes(const BypassRouteNotes &notes)
{
    for (const BypassRoute &route : notes.routes()) {
        const DWORD error = remove(route, notes);
        if (error == NO_ERROR) {
            qCInfo(lcRuvod) << "Removed bypass route of an earlier run:" << formatIpv4(route.destination) << "via"
                            << formatIpv4(route.nextHop);
        } else if (!isGone(error)) {
            qCWarning(lcRuvod) << "Failed to delete bypass route of an earlier run:" << formatIpv4(route.destination)
                               << "error:" << error;
        }
    }
}

} // namespace ruvo
