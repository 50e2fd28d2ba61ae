#include "journal.h"
#include "process_sessions.h"
#include "substitutes.h"

namespace ruvo::winehost {

BOOL WINAPI createProcess(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                          LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                          LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information)
{
    JournalEntry entry("CreateProcessW");
    entry.add("application", application)
        .add("command-line", commandLine)
        .add("inherit", inherit != FALSE)
        .add("flags", flags)
        .add("has-environment", environment != nullptr)
        .add("directory", directory)
        .add("startup-flags", startup->dwFlags)
        .add("show-window", startup->wShowWindow);
    const DWORD effective = flags & CREATE_NEW_CONSOLE ? flags & ~DWORD{CREATE_NEW_PROCESS_GROUP} : flags;
    const BOOL done = CreateProcessW(application, commandLine, process, thread, inherit, effective, environment,
                                     directory, startup, information);
    if (done)
        entry.add("child", information->dwProcessId);
    entry.addResult(done);
    return done;
}

BOOL WINAPI processIdToSessionId(DWORD pid, DWORD *session)
{
    JournalEntry entry("ProcessIdToSessionId");
    entry.add("process", pid);
    const auto found = sessionOfProcess(pid);
    if (found) {
        *session = *found;
        entry.add("session", *found);
    } else {
        SetLastError(found.error());
    }
    entry.addResult(found.has_value());
    return found.has_value();
}

} // namespace ruvo::winehost
