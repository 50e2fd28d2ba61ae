// The owners of sockets as processes: deputies are looked for when they are opened, and a program of Linux can be
// asked for its path.

#include "kernel/linux_processes.h"
#include "library/substitutes.h"
#include "library/text.h"
#include "netconfig/socket_owners.h"

#include <algorithm>
#include <string>

namespace ruvo::winehost {

namespace {

// The handle of a Linux process holds its id and nothing else. Wine's handles are small numbers.
constexpr ULONG_PTR linuxMark = 0x4C69'6E75'0000'0000;
constexpr ULONG_PTR idBits = 0xFFFF'FFFF;

HANDLE handleOfLinux(int process)
{
    return reinterpret_cast<HANDLE>(linuxMark | static_cast<ULONG_PTR>(process));
}

/// 0 for all other handles.
int linuxProcessOf(HANDLE handle)
{
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    return (value & ~idBits) == linuxMark ? static_cast<int>(value & idBits) : 0;
}

/// As Wine shows files of Linux: in its drive Z. A file that was removed while it runs carries a remark.
std::wstring windowsPath(std::string path)
{
    constexpr std::string_view remark = " (deleted)";
    if (path.ends_with(remark))
        path.resize(path.size() - remark.size());
    std::ranges::replace(path, '/', '\\');
    return toWide("Z:" + path);
}

BOOL queryLinuxProcess(int process, LPWSTR buffer, DWORD *size)
{
    const auto executable = executableOf(process);
    if (!executable) {
        SetLastError(ERROR_GEN_FAILURE);
        return FALSE;
    }
    const std::wstring path = windowsPath(*executable);
    if (*size <= path.size()) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    buffer[path.copy(buffer, path.size())] = L'\0';
    *size = static_cast<DWORD>(path.size());
    return TRUE;
}

} // namespace

HANDLE WINAPI openProcess(DWORD access, BOOL inherit, DWORD process)
{
    if (!isDeputy(process))
        return OpenProcess(access, inherit, process);
    const auto owner = findOwner(process);
    if (!owner) {
        SetLastError(ERROR_INVALID_PARAMETER); // as for an id that no process has
        return nullptr;
    }
    if (owner->windowsProcess != 0)
        return OpenProcess(access, inherit, owner->windowsProcess);
    if (access != PROCESS_QUERY_LIMITED_INFORMATION) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return handleOfLinux(owner->linuxProcess);
}

BOOL WINAPI queryFullProcessImageName(HANDLE handle, DWORD flags, LPWSTR buffer, DWORD *size)
{
    if (const int process = linuxProcessOf(handle))
        return queryLinuxProcess(process, buffer, size);
    return QueryFullProcessImageNameW(handle, flags, buffer, size);
}

BOOL WINAPI closeHandle(HANDLE handle)
{
    return linuxProcessOf(handle) != 0 || CloseHandle(handle);
}

} // namespace ruvo::winehost
