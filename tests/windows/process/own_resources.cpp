#include "windows/process/own_resources.h"

#include "common/windows_handles.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <vector>

#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

namespace ruvo::test {

namespace {

/// One row of NtQuerySystemInformation(64); winternl.h does not have it.
struct HandleRow
{
    void *object;
    ULONG_PTR pid;
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

// Wine's GetProcessHandleCount always says 0; the list of all handles is right.
std::vector<HandleRow> ownHandles()
{
    // Not a constant, as the compiler knows that the SDK's type has no such value.
    int extendedHandleInformation = 64;
    constexpr NTSTATUS tooSmall = static_cast<NTSTATUS>(0xC0000004);
    std::vector<ULONG_PTR> buffer(8 * 1024);
    NTSTATUS status = tooSmall;
    while (status == tooSmall) {
        buffer.resize(buffer.size() * 2);
        const auto size = static_cast<ULONG>(buffer.size() * sizeof(buffer.front()));
        status = NtQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(extendedHandleInformation),
                                          buffer.data(), size, nullptr);
    }
    std::vector<HandleRow> rows;
    EXPECT_EQ(status, 0) << "the handles cannot be listed";
    if (status != 0)
        return rows;
    const auto *table = reinterpret_cast<const HandleTable *>(buffer.data());
    std::copy_if(table->rows, table->rows + table->count, std::back_inserter(rows),
                 [](const HandleRow &row) { return row.pid == GetCurrentProcessId(); });
    return rows;
}

/// The number that this Windows gives to semaphores as a type.
USHORT semaphoreType()
{
    const KernelHandle semaphore(CreateSemaphoreW(nullptr, 0, 1, nullptr));
    for (const HandleRow &row : ownHandles()) {
        if (row.value == reinterpret_cast<ULONG_PTR>(semaphore.get()))
            return row.type;
    }
    return 0;
}

std::size_t countOwnThreads()
{
    const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    std::size_t count = 0;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more; more = Thread32Next(snapshot.get(), &entry)) {
        if (entry.th32OwnerProcessID == GetCurrentProcessId())
            ++count;
    }
    return count;
}

std::size_t allocatedHeapBytes()
{
    const HANDLE heap = GetProcessHeap();
    HeapLock(heap);
    PROCESS_HEAP_ENTRY entry{};
    std::size_t bytes = 0;
    while (HeapWalk(heap, &entry)) {
        if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY)
            bytes += entry.cbData;
    }
    HeapUnlock(heap);
    return bytes;
}

std::size_t ownWorkingSet()
{
    PROCESS_MEMORY_COUNTERS counters{};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.WorkingSetSize;
}

} // namespace

std::size_t countOwnHandles()
{
    const USHORT semaphore = semaphoreType();
    return static_cast<std::size_t>(
        std::ranges::count_if(ownHandles(), [semaphore](const HandleRow &row) { return row.type != semaphore; }));
}

bool waitForHandles(std::size_t count)
{
    return waitUntil([count] { return countOwnHandles() <= count; });
}

OwnResources OwnResources::now()
{
    return {countOwnHandles(), countOwnThreads(), allocatedHeapBytes(), ownWorkingSet()};
}

std::string OwnResources::text() const
{
    return std::to_string(handles) + " handles, " + std::to_string(threads) + " threads, "
           + std::to_string(heapBytes / 1024) + " KiB of heap, " + std::to_string(workingSet / 1024)
           + " KiB working set";
}

} // namespace ruvo::test
