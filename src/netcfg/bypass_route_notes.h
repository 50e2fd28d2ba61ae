#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {

/// A host route past the tunnel. In host order.
struct BypassRoute
{
    std::uint32_t destination = 0;
    std::uint32_t nextHop = 0; ///< 0: on-link
    std::uint32_t interfaceIndex = 0;

    bool operator==(const BypassRoute &) const = default;
};

/// Which bypass routes have been added and not been taken away, as the names of values in a key below the service's
/// own: what a daemon that was killed has left behind. The key is volatile, so that it goes with the routes when the
/// system goes down. Without a service of the name nothing is noted.
///
/// Service thread. What fails is told at debug level, and the routes are as they are.
class BypassRouteNotes
{
public:
    explicit BypassRouteNotes(std::wstring serviceKey = L"SYSTEM\\CurrentControlSet\\Services\\RuvoService");

    void add(const BypassRoute &route) const;
    void remove(const BypassRoute &route) const;
    /// In no certain order. Names that are no routes are cleared away.
    std::vector<BypassRoute> routes() const;

private:
    const std::wstring m_serviceKey;
};

} // namespace ruvo
