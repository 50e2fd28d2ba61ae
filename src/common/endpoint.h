#pragma once

#include <QString>

#include <compare>
#include <cstdint>

namespace ruvo {

/// An IPv4 address and a port, both in host order.
struct Endpoint
{
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    auto operator<=>(const Endpoint &) const = default;
};

/// One flow or connection as the application sees it: from where to where. Ordered by source, then by destination.
struct FlowKey
{
    Endpoint source;
    Endpoint destination;
    auto operator<=>(const FlowKey &) const = default;
};

/// "93.184.216.34:443", as log lines name endpoints.
QString formatEndpoint(const Endpoint &endpoint);

} // namespace ruvo
