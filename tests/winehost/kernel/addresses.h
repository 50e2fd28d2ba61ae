#pragma once

#include <cstdint>
#include <vector>

namespace ruvo::winehost {

/// An IPv4 address of an interface; the address in host order.
struct InterfaceAddress
{
    std::uint32_t link = 0; ///< index of its interface
    std::uint32_t address = 0;
    std::uint8_t prefixLength = 0;
};

std::vector<InterfaceAddress> listAddresses();

/// 0, or Linux's error number.
int addAddress(const InterfaceAddress &address);

} // namespace ruvo::winehost
