#pragma once

#include "common/winsock_headers.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace ruvo::winehost {

/// Who speaks to whom, as a filter sees it. Addresses are in network order; IPv4 has the first four bytes.
struct Flow
{
    using Address = std::array<std::uint8_t, 16>;

    Address local{};
    Address remote{};
    std::uint32_t interfaceIndex = 0; ///< that the socket is bound to; 0: the routes decide
    std::uint16_t port = 0;           ///< the remote one, in host order
    bool isIpv6 = false;
    bool isUdp = false;

    bool operator==(const Flow &) const = default;
};

/// The remote end. Nothing for an address that is neither IPv4 nor IPv6.
std::optional<Flow> flowTo(const sockaddr *remote, int size);

/// Fills in the rest of what the kernel knows of the socket. False if it is none.
bool completeFlow(Flow &flow, SOCKET socket);

std::string addressText(const Flow::Address &address, bool isIpv6);

} // namespace ruvo::winehost
