#include "netclient/endpoint.h"

#include "library/text.h"

namespace ruvo::winehost {

std::string Endpoint::text() const
{
    char text[INET6_ADDRSTRLEN] = {};
    if (family() == AF_INET6) {
        const auto &ipv6 = reinterpret_cast<const sockaddr_in6 &>(address);
        inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof text);
        return '[' + std::string(text) + "]:" + std::to_string(ntohs(ipv6.sin6_port));
    }
    const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(address);
    inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
    return text + (':' + std::to_string(ntohs(ipv4.sin_port)));
}

std::optional<Endpoint> parseEndpoint(const std::string &address, const std::string &port)
{
    const auto number = toNumber(port);
    if (!number || *number > 65535)
        return std::nullopt;
    Endpoint endpoint;
    auto &ipv4 = reinterpret_cast<sockaddr_in &>(endpoint.address);
    auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(endpoint.address);
    if (inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        endpoint.size = sizeof ipv4;
    } else if (inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        endpoint.size = sizeof ipv6;
    } else {
        return std::nullopt;
    }
    ipv4.sin_port = htons(static_cast<u_short>(*number)); // where IPv6 has it too
    return endpoint;
}

Endpoint localEndpoint(SOCKET socket)
{
    Endpoint endpoint;
    getsockname(socket, endpoint.generic(), &endpoint.size);
    return endpoint;
}

} // namespace ruvo::winehost
