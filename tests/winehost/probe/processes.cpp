#include "probe.h"

#include "library/json_line.h"
#include "library/process_list.h"

#include "common/windows_handles.h"

#include <cstdio>

namespace ruvo::winehost {

namespace {

/// Wine keeps no count of them: each place of the table is tried.
unsigned long countHandles(const RunningProcess &process)
{
    const KernelHandle opened(OpenProcess(PROCESS_DUP_HANDLE, FALSE, process.pid));
    unsigned long count = 0;
    anyHandlePlace(process, [&](HANDLE value) {
        KernelHandle copy;
        if (DuplicateHandle(opened.get(), value, GetCurrentProcess(), copy.out(), 0, FALSE, DUPLICATE_SAME_ACCESS))
            ++count;
        return false;
    });
    return count;
}

void print(const RunningProcess &process)
{
    JsonLine line;
    line.add("pid", static_cast<unsigned long>(process.pid))
        .add("parent", static_cast<unsigned long>(process.parent))
        .add("name", std::wstring_view(process.name))
        .add("handles", countHandles(process))
        .add("threads", process.threads);
    std::puts(line.text().c_str());
}

} // namespace

int listProcesses(const Arguments &arguments)
{
    const std::vector<RunningProcess> processes = runningProcesses();
    if (processes.empty()) {
        std::puts(JsonLine().add("error", ERROR_GEN_FAILURE).add("call", "NtQuerySystemInformation").text().c_str());
        return 1;
    }
    for (const RunningProcess &process : processes) {
        if (arguments.empty() || _wcsicmp(process.name.c_str(), arguments[0].c_str()) == 0)
            print(process);
    }
    return 0;
}

} // namespace ruvo::winehost
