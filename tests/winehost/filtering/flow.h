#pragma once

#include "kernel/system_call.h"

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

/// What the kernel knows of a socket.
struct SocketFacts
{
    Flow::Address local{};
    std::uint32_t interfaceIndex = 0; ///< as in Flow
    bool isIpv6 = false;
    bool isUdp = false;
};

/// Nothing if it is no socket of IPv4 or IPv6.
std::optional<SocketFacts> factsOf(const Descriptor &descriptor);

/// The remote end of a flow. Nothing for an address that is neither of IPv4 nor of IPv6.
std::optional<Flow> flowTo(const sockaddr *remote, int size);

/// Fills in the rest. False if socket and address do not go together.
bool completeFlow(Flow &flow, const SocketFacts &facts);

std::string addressText(const Flow::Address &address, bool isIpv6);

} // namespace ruvo::winehost
