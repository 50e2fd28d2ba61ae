// Calls of a tunnel's start that Wine does well enough: written down and passed on, unless a test has planned that
// they fail.

#include "planned_call.h"
#include "substitutes.h"
#include "text.h"

#include <atomic>
#include <string>

namespace ruvo::winehost {

namespace {

using FlushFunction = BOOL(WINAPI *)();
std::atomic<FlushFunction> s_flushResolverCache = nullptr;

BOOL WINAPI flushResolverCache()
{
    PlannedCall call("DnsFlushResolverCache");
    const FlushFunction flush = s_flushResolverCache;
    const DWORD error = call.finish([flush]() -> DWORD { return flush() ? NO_ERROR : ERROR_GEN_FAILURE; });
    SetLastError(error);
    return error == NO_ERROR;
}

/// The settings of IP interfaces; whatever else the program reads is its own business.
bool isOfInterface(LPCWSTR path)
{
    constexpr std::wstring_view services = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip";
    return path && std::wstring_view(path).starts_with(services);
}

} // namespace

LSTATUS WINAPI regOpenKeyEx(HKEY key, LPCWSTR path, DWORD options, REGSAM access, HKEY *result)
{
    if (!isOfInterface(path))
        return RegOpenKeyExW(key, path, options, access, result);
    PlannedCall call("RegOpenKeyExW");
    call.add("path", path).add("access", static_cast<DWORD>(access));
    return static_cast<LSTATUS>(call.finish([&] { return RegOpenKeyExW(key, path, options, access, result); }));
}

LSTATUS WINAPI regSetValueExA(HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE *data, DWORD size)
{
    PlannedCall call("RegSetValueExA");
    call.add("name", name).add("type", type);
    if (type == REG_SZ && data && size > 0)
        call.add("text", std::string_view(reinterpret_cast<const char *>(data), size - 1));
    call.add("size", size);
    return static_cast<LSTATUS>(call.finish([&] { return RegSetValueExA(key, name, reserved, type, data, size); }));
}

// A new port is one step of the tunnel's start; sockets that are bound to it are far too many to be written down.
HANDLE WINAPI createIoCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads)
{
    if (port)
        return associateSocket(file, port, key, threads);
    PlannedCall call("CreateIoCompletionPort");
    call.add("bound", file != INVALID_HANDLE_VALUE).add("threads", threads);
    HANDLE made = nullptr;
    const DWORD error = call.finish([&]() -> DWORD {
        made = CreateIoCompletionPort(file, port, key, threads);
        return made ? NO_ERROR : GetLastError();
    });
    SetLastError(error);
    return made;
}

// "GetProcAddress:NAME" in the plan makes that function missing.
FARPROC WINAPI getProcAddress(HMODULE library, LPCSTR name)
{
    if (IS_INTRESOURCE(name)) // by number
        return GetProcAddress(library, name);
    if (const auto fault = plannedFault("GetProcAddress:" + std::string(name))) {
        JournalEntry("GetProcAddress").add("name", name).add("result", false).add("planned", true);
        SetLastError(*fault);
        return nullptr;
    }
    const FARPROC function = GetProcAddress(library, name);
    if (!function || std::string_view(name) != "DnsFlushResolverCache")
        return function;
    s_flushResolverCache = reinterpret_cast<FlushFunction>(reinterpret_cast<void *>(function));
    return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(flushResolverCache));
}

} // namespace ruvo::winehost
