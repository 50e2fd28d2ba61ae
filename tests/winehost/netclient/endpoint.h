#pragma once

#include "common/winsock_headers.h"

#include <optional>
#include <string>

namespace ruvo::winehost {

/// An address of IPv4 or IPv6 with a port.
struct Endpoint
{
    sockaddr_storage address{};
    int size = sizeof(sockaddr_storage);

    int family() const { return address.ss_family; }
    const sockaddr *generic() const { return reinterpret_cast<const sockaddr *>(&address); }
    sockaddr *generic() { return reinterpret_cast<sockaddr *>(&address); }

    /// 203.0.113.10:80 or [2001:db8::1]:80
    std::string text() const;
};

std::optional<Endpoint> parseEndpoint(const std::string &address, const std::string &port);

/// This end of a socket.
Endpoint localEndpoint(SOCKET socket);

} // namespace ruvo::winehost
