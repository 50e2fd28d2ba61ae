#include "library/process_list.h"

#include <winternl.h>

#include <algorithm>
#include <cstdint>
#include <functional>

namespace ruvo::winehost {

namespace {

/// What NtQuerySystemInformation(5) gives for each process, as far as it is read here; winternl.h hides it.
struct ProcessRecord
{
    ULONG next;
    ULONG threads;
    LARGE_INTEGER reserved[3];
    LARGE_INTEGER times[3];
    UNICODE_STRING name;
    LONG priority;
    HANDLE pid;
    HANDLE parent;
    ULONG handles;
};

DWORD idOf(HANDLE id)
{
    return static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(id));
}

RunningProcess described(const ProcessRecord &record)
{
    return {.pid = idOf(record.pid),
            .parent = idOf(record.parent),
            .name = std::wstring(record.name.Buffer ? record.name.Buffer : L"", record.name.Length / sizeof(wchar_t)),
            .threads = record.threads,
            .handlePlaces = record.handles};
}

} // namespace

std::vector<RunningProcess> runningProcesses()
{
    constexpr NTSTATUS tooSmall = static_cast<NTSTATUS>(0xC0000004);
    std::vector<std::uint64_t> buffer(4096);
    NTSTATUS status = tooSmall;
    while (status == tooSmall) {
        buffer.resize(buffer.size() * 2);
        status = NtQuerySystemInformation(SystemProcessInformation, buffer.data(),
                                          static_cast<ULONG>(buffer.size() * sizeof buffer[0]), nullptr);
    }
    std::vector<RunningProcess> processes;
    if (status != 0)
        return processes;
    const char *at = reinterpret_cast<const char *>(buffer.data());
    for (;;) {
        const auto &record = *reinterpret_cast<const ProcessRecord *>(at);
        processes.push_back(described(record));
        if (record.next == 0)
            break;
        at += record.next;
    }
    std::ranges::stable_sort(processes, std::greater(), &RunningProcess::pid);
    return processes;
}

} // namespace ruvo::winehost
