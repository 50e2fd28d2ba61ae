#include "kernel/linux_processes.h"

#include "kernel/system_call.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace ruvo::winehost {

namespace {

std::string folderOf(int process)
{
    return "/proc/" + std::to_string(process) + '/';
}

std::optional<std::string> target(const std::string &link)
{
    char text[1024];
    const std::int64_t size = systemCall(SystemCall::readLink, link.c_str(), text, sizeof text);
    if (size < 0)
        return std::nullopt;
    return std::string(text, static_cast<std::size_t>(size));
}

template<typename Number>
std::optional<Number> wholeNumber(std::string_view text)
{
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// The entries of a folder that are numbers, in the order in which the kernel lists them.
std::vector<int> numbersIn(const std::string &folder)
{
    // linux_dirent64: inode and offset of 8 bytes each, length of the entry, type, name.
    constexpr std::size_t lengthOffset = 16;
    constexpr std::size_t nameOffset = 19;

    std::vector<int> numbers;
    const Descriptor directory(
        systemCall(SystemCall::open, folder.c_str(), open_flags::readOnly | open_flags::closeOnExec));
    alignas(8) char entries[16384];
    for (;;) {
        const std::int64_t size = systemCall(SystemCall::directoryEntries, directory.get(), entries, sizeof entries);
        if (size <= 0)
            return numbers;
        for (const char *entry = entries; entry < entries + size;) {
            if (const auto number = wholeNumber<int>(entry + nameOffset))
                numbers.push_back(*number);
            std::uint16_t length = 0;
            std::memcpy(&length, entry + lengthOffset, sizeof length);
            entry += length;
        }
    }
}

/// "socket:[123]"
std::optional<std::uint32_t> socketInode(std::string_view target)
{
    constexpr std::string_view head = "socket:[";
    if (!target.starts_with(head) || !target.ends_with(']'))
        return std::nullopt;
    target.remove_prefix(head.size());
    target.remove_suffix(1);
    return wholeNumber<std::uint32_t>(target);
}

} // namespace

std::vector<int> linuxProcesses()
{
    std::vector<int> processes = numbersIn("/proc");
    std::ranges::sort(processes, std::greater());
    return processes;
}

std::optional<std::string> executableOf(int process)
{
    return target(folderOf(process) + "exe");
}

int parentOf(int process)
{
    const std::string path = folderOf(process) + "stat";
    const Descriptor file(systemCall(SystemCall::open, path.c_str(), open_flags::readOnly | open_flags::closeOnExec));
    char text[512];
    const std::int64_t size = systemCall(SystemCall::read, file.get(), text, sizeof text);
    // "123 (name) S 45 …"; the name may hold anything.
    std::string_view rest(text, static_cast<std::size_t>(std::max<std::int64_t>(size, 0)));
    constexpr std::size_t fromNameToParent = 4;
    const std::size_t nameEnd = rest.rfind(')');
    if (nameEnd == std::string_view::npos || rest.size() < nameEnd + fromNameToParent)
        return 0;
    rest.remove_prefix(nameEnd + fromNameToParent);
    return wholeNumber<int>(rest.substr(0, rest.find(' '))).value_or(0);
}

bool holdsSocket(int process, std::uint32_t inode)
{
    constexpr std::uint32_t lowest31Bits = 0x7FFFFFFF;
    const std::string folder = folderOf(process) + "fd/";
    std::vector<int> descriptors = numbersIn(folder);
    // The youngest usually come last.
    return std::ranges::any_of(descriptors.rbegin(), descriptors.rend(), [&](int descriptor) {
        const auto found = socketInode(target(folder + std::to_string(descriptor)).value_or(std::string()));
        return found && ((*found ^ inode) & lowest31Bits) == 0;
    });
}

std::uint32_t inodeOf(int descriptor)
{
    // Linux's struct stat: device, inode, 8 bytes each.
    std::uint64_t status[18] = {};
    static_assert(sizeof status == 144);
    return systemCall(SystemCall::status, descriptor, status) == 0 ? static_cast<std::uint32_t>(status[1]) : 0;
}

int ownLinuxProcess()
{
    return static_cast<int>(systemCall(SystemCall::processId, 0));
}

} // namespace ruvo::winehost
