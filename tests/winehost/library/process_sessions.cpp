#include "process_sessions.h"

#include "bench_folder.h"
#include "text.h"

#include "common/windows_handles.h"

#include <tlhelp32.h>

#include <map>
#include <set>

namespace ruvo::winehost {

namespace {

/// Parent of each process that runs.
std::map<DWORD, DWORD> parents()
{
    std::map<DWORD, DWORD> found;
    const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W process{};
    process.dwSize = sizeof process;
    for (BOOL more = Process32FirstW(snapshot.get(), &process); more; more = Process32NextW(snapshot.get(), &process))
        found[process.th32ProcessID] = process.th32ParentProcessID;
    return found;
}

/// `pid`, its parent, and so on. Ids are used again: the walk ends where it would go in a circle.
std::set<DWORD> lineOf(DWORD pid, const std::map<DWORD, DWORD> &parents)
{
    std::set<DWORD> line;
    for (auto at = parents.find(pid); at != parents.end() && line.insert(at->first).second;)
        at = parents.find(at->second);
    return line;
}

DWORD sessionFromFile(DWORD pid)
{
    constexpr DWORD usersSession = 1;
    DWORD session = usersSession;
    const auto text = readBenchFile(L"process-sessions.txt");
    for (const auto &words : wordsOfLines(text.value_or(""))) {
        if (words.size() == 2 && toNumber(words[0]) == pid)
            session = toNumber(words[1]).value_or(usersSession);
    }
    return session;
}

} // namespace

std::expected<DWORD, DWORD> sessionOfProcess(DWORD pid)
{
    constexpr DWORD servicesSession = 0;
    const auto all = parents();
    if (!all.contains(pid))
        return std::unexpected<DWORD>(ERROR_INVALID_PARAMETER);
    const DWORD self = GetCurrentProcessId();
    if (lineOf(pid, all).contains(self) || lineOf(self, all).contains(pid))
        return servicesSession;
    return sessionFromFile(pid);
}

} // namespace ruvo::winehost
