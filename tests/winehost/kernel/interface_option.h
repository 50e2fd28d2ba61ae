#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ruvo::winehost {

/// One number of /proc/sys/net/ipv4/conf/INTERFACE, of this process's namespace.
std::optional<std::uint32_t> interfaceOption(std::string_view link, std::string_view option);
bool setInterfaceOption(std::string_view link, std::string_view option, std::uint32_t value);

} // namespace ruvo::winehost
