#pragma once

#include "netcfg/bypass_route_notes.h"

#include <vector>

namespace ruvo {

/// The host routes past the tunnel that this run of the daemon has added. They are on a physical interface and would
/// stay there when the process ends: each is noted as long as it is there.
///
/// Service thread. What fails is logged.
class BypassRoutes
{
public:
    /// `notes` outlive this.
    explicit BypassRoutes(const BypassRouteNotes &notes) : m_notes(notes) {}

    /// A route that is there already is somebody else's, and stays theirs.
    void add(const BypassRoute &route);
    /// In the order of their addition; exactly those that were added.
    void removeAll();

private:
    const BypassRouteNotes &m_notes;
    std::vector<BypassRoute> m_routes;
};

/// Takes away the routes of an earlier run that is noted to have left them. Before this run adds any.
void removeLeftoverBypassRoutes(const BypassRouteNotes &notes);

} // namespace ruvo
