#include "kernel/interface_option.h"

#include "kernel/system_call.h"

#include <charconv>
#include <string>

namespace ruvo::winehost {

namespace {

Descriptor openOption(std::string_view link, std::string_view option, int mode)
{
    std::string path = "/proc/sys/net/ipv4/conf/";
    path.append(link).append("/").append(option);
    return Descriptor(systemCall(SystemCall::open, path.c_str(), mode | open_flags::closeOnExec));
}

} // namespace

std::optional<std::uint32_t> interfaceOption(std::string_view link, std::string_view option)
{
    const Descriptor file = openOption(link, option, open_flags::readOnly);
    char text[16];
    const std::int64_t size = systemCall(SystemCall::read, file.get(), text, sizeof text);
    std::uint32_t value = 0;
    if (size <= 0 || std::from_chars(text, text + size, value).ec != std::errc())
        return std::nullopt;
    return value;
}

bool setInterfaceOption(std::string_view link, std::string_view option, std::uint32_t value)
{
    const Descriptor file = openOption(link, option, open_flags::writeOnly);
    const std::string text = std::to_string(value);
    return systemCall(SystemCall::write, file.get(), text.data(), text.size())
           == static_cast<std::int64_t>(text.size());
}

} // namespace ruvo::winehost
