#pragma once

#include "common/winsock_headers.h"

#include <cstdint>

namespace ruvo {

/// An IPv4 address in host order as Windows' IP interfaces take it.
inline SOCKADDR_INET inetAddress(std::uint32_t address)
{
    SOCKADDR_INET inet{};
    inet.Ipv4.sin_family = AF_INET;
    inet.Ipv4.sin_addr.s_addr = htonl(address);
    return inet;
}

} // namespace ruvo
