#pragma once

#include <cstdint>

namespace ruvo {

/// Which way a new connection or flow takes.
struct UpstreamDecision
{
    /// The local inbound that it is relayed to, in host order.
    std::uint16_t port = 0;
    /// Whether a rule keeps it away from the proxy. Told apart from the port: both inbounds may be one and the same.
    bool isDirect = false;
    bool operator==(const UpstreamDecision &) const = default;
};

} // namespace ruvo
