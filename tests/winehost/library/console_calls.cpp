#include "journal.h"
#include "substitutes.h"

#include <vector>

namespace ruvo::winehost {

namespace {

std::vector<DWORD> processesOfConsole()
{
    std::vector<DWORD> pids(64);
    for (;;) {
        const DWORD count = GetConsoleProcessList(pids.data(), static_cast<DWORD>(pids.size()));
        if (count <= pids.size()) {
            pids.resize(count);
            return pids;
        }
        pids.resize(count);
    }
}

} // namespace

// Ctrl+C for group 0 reaches every process of the caller's console, the caller too. Wine reaches the caller's own
// group with that; a process that leads a group of its own is reached by its id, and only by that.
BOOL WINAPI generateConsoleCtrlEvent(DWORD event, DWORD group)
{
    JournalEntry entry("GenerateConsoleCtrlEvent");
    entry.add("event", event).add("group", group);
    BOOL done = GenerateConsoleCtrlEvent(event, group);
    if (event == CTRL_C_EVENT && group == 0) {
        const DWORD error = GetLastError();
        for (const DWORD pid : processesOfConsole()) {
            if (pid != GetCurrentProcessId() && GenerateConsoleCtrlEvent(event, pid))
                done = TRUE;
        }
        SetLastError(error);
    }
    entry.addResult(done);
    return done;
}

} // namespace ruvo::winehost
