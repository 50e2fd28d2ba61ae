#include "windows/support/own_resources.h"

#include "library/process_list.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <map>
#include <vector>

#include <psapi.h>
#include <winternl.h>

namespace ruvo::test {

namespace {

winehost::RunningProcess ownProcess()
{
    const std::vector<winehost::RunningProcess> processes = winehost::runningProcesses();
    const auto own = std::ranges::find(processes, GetCurrentProcessId(), &winehost::RunningProcess::pid);
    EXPECT_NE(own, processes.end()) << "the processes cannot be listed";
    return own != processes.end() ? *own : winehost::RunningProcess{};
}

/// What kind of object that is; empty if it is no handle.
std::wstring typeOf(HANDLE handle)
{
    int objectTypeInformation = 2; // not a constant, as the compiler knows that the SDK's type has no such value
    alignas(UNICODE_STRING) std::array<char, 512> buffer;
    const NTSTATUS status = NtQueryObject(handle, static_cast<OBJECT_INFORMATION_CLASS>(objectTypeInformation),
                                          buffer.data(), static_cast<ULONG>(buffer.size()), nullptr);
    if (status != 0)
        return {};
    const auto *name = reinterpret_cast<const UNICODE_STRING *>(buffer.data());
    return {name->Buffer, name->Length / sizeof(wchar_t)};
}

/// What is open, and of what kind it is; without semaphores.
using OpenHandles = std::map<HANDLE, std::wstring>;

OpenHandles ownHandles()
{
    OpenHandles handles;
    winehost::anyHandlePlace(ownProcess(), [&handles](HANDLE value) {
        const std::wstring type = typeOf(value);
        if (!type.empty() && type != L"Semaphore")
            handles.emplace(value, type);
        return false;
    });
    return handles;
}

/// What is open now and was not `before`.
OpenHandles openedSince(const OpenHandles &before)
{
    OpenHandles opened;
    std::ranges::set_difference(ownHandles(), before, std::inserter(opened, opened.end()));
    return opened;
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
    return ownHandles().size();
}

bool waitForHandles(std::size_t count)
{
    return waitUntil([count] { return countOwnHandles() <= count; });
}

bool leavesNoHandles(const std::function<void()> &round, int rounds, std::chrono::milliseconds patience)
{
    OpenHandles before;
    for (int i = 0; i < rounds; ++i) {
        before = ownHandles();
        round();
        if (waitUntil([&before] { return openedSince(before).empty(); }, patience))
            return true;
    }
    for (const auto &[value, type] : openedSince(before))
        std::printf("the last round has left %p, %ls\n", value, type.c_str());
    return false;
}

OwnResources OwnResources::now()
{
    return {countOwnHandles(), ownProcess().threads, allocatedHeapBytes(), ownWorkingSet()};
}

std::string OwnResources::text() const
{
    return std::to_string(handles) + " handles, " + std::to_string(threads) + " threads, "
           + std::to_string(heapBytes / 1024) + " KiB of heap, " + std::to_string(workingSet / 1024)
           + " KiB working set";
}

} // namespace ruvo::test
