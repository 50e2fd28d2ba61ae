#pragma once

#include "common/steady_clock.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace ruvo {

/// What one connection to an inbound of the proxy tells of it.
enum class ProxySign {
    Accepted, ///< it has answered the greeting with 05 00, whatever it says of the request that follows
    Failed,   ///< refused, timed out, or no such answer
};

/// A sign and when it was seen. It may be told much later: a connection that was let in and whose request nobody
/// answers is told of when it is given up, and the proxy may have died since.
struct ProxySighting
{
    ProxySign sign = ProxySign::Failed;
    /// When the answer came, or was given up.
    SteadyTime at;
    bool operator==(const ProxySighting &) const = default;
};

/// Told of each connection to the proxy host once it is over or stands, with the port of the inbound (host order).
/// From any thread, with no lock of the teller's held; returns at once and throws nothing.
using ProxyWitness = std::function<void(std::uint16_t port, const ProxySighting &sighting)>;

/// Tells the witness, if there is one, of what was seen, if anything was.
inline void tell(const ProxyWitness &witness, std::uint16_t port, const std::optional<ProxySighting> &sighting)
{
    if (witness && sighting)
        witness(port, *sighting);
}

} // namespace ruvo
