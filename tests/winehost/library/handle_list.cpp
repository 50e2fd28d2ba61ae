#include "handle_list.h"

#include <winternl.h>

#include <algorithm>
#include <cstdint>

namespace ruvo::winehost {

namespace {

/// One row of NtQuerySystemInformation(64); winternl.h does not have it.
struct HandleRow
{
    void *object;
    ULONG_PTR process;
    ULONG_PTR value;
    ULONG access;
    USHORT traceIndex;
    USHORT type;
    ULONG attributes;
    ULONG reserved;
};

struct HandleTable
{
    ULONG_PTR count;
    ULONG_PTR reserved;
    HandleRow rows[1];
};

} // namespace

std::vector<OpenHandle> openHandles()
{
    // Not a constant, as the compiler knows that the SDK's type has no such value.
    int extendedHandleInformation = 64;
    constexpr NTSTATUS tooSmall = static_cast<NTSTATUS>(0xC0000004);
    std::vector<std::uint64_t> buffer(8192);
    NTSTATUS status = tooSmall;
    while (status == tooSmall) {
        buffer.resize(buffer.size() * 2);
        status = NtQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(extendedHandleInformation),
                                          buffer.data(), static_cast<ULONG>(buffer.size() * sizeof buffer[0]), nullptr);
    }
    std::vector<OpenHandle> found;
    if (status != 0)
        return found;
    const auto *table = reinterpret_cast<const HandleTable *>(buffer.data());
    for (const HandleRow *row = table->rows; row < table->rows + table->count; ++row)
        found.push_back({static_cast<DWORD>(row->process), reinterpret_cast<HANDLE>(row->value)});
    std::ranges::stable_sort(found, std::greater(), &OpenHandle::process);
    return found;
}

} // namespace ruvo::winehost
