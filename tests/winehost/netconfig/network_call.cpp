#include "netconfig/network_call.h"

#include "kernel/system_call.h"
#include "netconfig/interface_id.h"

#include <bit>

namespace ruvo::winehost {

std::optional<Link> NetworkCall::link(const NET_LUID &luid, NET_IFINDEX index)
{
    auto found = findLink(luid, index);
    if (found)
        add("interface", std::string_view(found->name));
    else
        add("unknown-luid", luid.Value).add("unknown-index", index);
    return found;
}

void NetworkCall::addAddress(std::string_view key, std::uint32_t address)
{
    add(key, std::string_view(ipv4Text(address)));
}

void NetworkCall::addPrefix(std::string_view key, std::uint32_t address, unsigned length)
{
    add(key, std::string_view(ipv4Text(address) + '/' + std::to_string(length)));
}

std::string ipv4Text(std::uint32_t address)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += std::to_string((address >> shift) & 0xFF) + (shift > 0 ? "." : "");
    return text;
}

std::uint32_t ipv4Of(const SOCKADDR_INET &address)
{
    return std::byteswap(static_cast<std::uint32_t>(address.Ipv4.sin_addr.s_addr));
}

bool isIpv4OrUnset(const SOCKADDR_INET &address)
{
    return address.si_family == AF_INET || (address.si_family == AF_UNSPEC && address.Ipv4.sin_addr.s_addr == 0);
}

DWORD windowsError(int linuxError)
{
    switch (linuxError) {
    case 0: return NO_ERROR;
    case linux_error::exists: return ERROR_OBJECT_ALREADY_EXISTS;
    case linux_error::notPermitted:
    case linux_error::accessDenied: return ERROR_ACCESS_DENIED;
    case linux_error::noSuchProcess:
    case linux_error::noDevice: return ERROR_NOT_FOUND;
    case linux_error::invalid: return ERROR_INVALID_PARAMETER;
    case linux_error::networkDown:
    case linux_error::unreachable: return ERROR_NETWORK_UNREACHABLE;
    default: return ERROR_GEN_FAILURE;
    }
}

std::optional<std::uint8_t> prefixLengthOf(std::uint32_t mask)
{
    const int ones = std::countl_one(mask);
    if (std::popcount(mask) != ones)
        return std::nullopt;
    return static_cast<std::uint8_t>(ones);
}

std::uint32_t maskOf(unsigned prefixLength)
{
    return prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength);
}

} // namespace ruvo::winehost
