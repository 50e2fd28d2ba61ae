#include "probe.h"

#include "library/json_line.h"

#include <windows.h>
#include <winternl.h>

#include <cstdio>
#include <map>

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
};

struct HandleRecord
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
    HandleRecord handles[1];
};

constexpr int processInformation = 5;
constexpr int extendedHandleInformation = 64;

/// The whole answer for an information class; empty on failure.
std::vector<char> query(int what)
{
    constexpr NTSTATUS tooSmall = static_cast<NTSTATUS>(0xC0000004);
    std::vector<char> buffer(64 * 1024);
    ULONG size = 0;
    NTSTATUS status = tooSmall;
    while (status == tooSmall) {
        buffer.resize(buffer.size() * 2);
        status = NtQuerySystemInformation(static_cast<SYSTEM_INFORMATION_CLASS>(what), buffer.data(),
                                          static_cast<ULONG>(buffer.size()), &size);
    }
    if (status != 0)
        buffer.clear();
    return buffer;
}

template<typename T>
const T &recordAt(const char *at)
{
    return *static_cast<const T *>(static_cast<const void *>(at));
}

/// The count that Wine keeps with each process is the size of its table; the handles themselves are listed here.
std::map<ULONG_PTR, unsigned long> countHandles(const std::vector<char> &answer)
{
    std::map<ULONG_PTR, unsigned long> counts;
    const auto &table = recordAt<HandleTable>(answer.data());
    for (ULONG_PTR i = 0; i < table.count; ++i)
        ++counts[table.handles[i].pid];
    return counts;
}

unsigned long idOf(HANDLE id)
{
    return static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(id));
}

void print(const ProcessRecord &process, const std::wstring &name, unsigned long handles)
{
    JsonLine line;
    line.add("pid", idOf(process.pid))
        .add("parent", idOf(process.parent))
        .add("name", std::wstring_view(name))
        .add("handles", handles)
        .add("threads", process.threads);
    std::puts(line.text().c_str());
}

} // namespace

int listProcesses(const Arguments &arguments)
{
    const std::vector<char> processes = query(processInformation);
    const std::vector<char> handles = query(extendedHandleInformation);
    if (processes.empty() || handles.empty()) {
        std::puts(JsonLine().add("error", ERROR_GEN_FAILURE).add("call", "NtQuerySystemInformation").text().c_str());
        return 1;
    }
    auto counts = countHandles(handles);
    const char *at = processes.data();
    for (;;) {
        const auto &process = recordAt<ProcessRecord>(at);
        const std::wstring name(process.name.Buffer ? process.name.Buffer : L"",
                                process.name.Length / sizeof(wchar_t));
        if (arguments.empty() || _wcsicmp(name.c_str(), arguments[0].c_str()) == 0)
            print(process, name, counts[reinterpret_cast<ULONG_PTR>(process.pid)]);
        if (process.next == 0)
            return 0;
        at += process.next;
    }
}

} // namespace ruvo::winehost
