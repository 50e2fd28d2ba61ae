#pragma once

#include <compare>
#include <cstdint>

namespace ruvo {

/// A UDP flow as the client sees it. Host order.
struct UdpFlowKey
{
    std::uint32_t clientAddress = 0;
    std::uint16_t clientPort = 0;
    /// Where the client sends, and where its answers come from.
    std::uint32_t requestedAddress = 0;
    std::uint16_t requestedPort = 0;
    auto operator<=>(const UdpFlowKey &) const = default;
};

} // namespace ruvo
