#include "daemon/stale_processes.h"

#include "common/log_category.h"
#include "common/windows_handles.h"

#include <QString>

#include <algorithm>
#include <array>

#include <tlhelp32.h>

namespace ruvo {

namespace {

constexpr std::array staleNames = {QLatin1StringView("xray.exe"), QLatin1StringView("antifilter.exe")};

bool isStale(const QString &executable)
{
    return std::ranges::any_of(
        staleNames, [&](QLatin1StringView name) { return executable.compare(name, Qt::CaseInsensitive) == 0; });
}

bool kill(const QString &name, DWORD processId, quint32 sessionId)
{
    qCWarning(lcRuvod) << "Found stale process" << name << "PID:" << processId << "in session" << sessionId
                       << "- killing";
    const KernelHandle process(OpenProcess(PROCESS_TERMINATE, FALSE, processId));
    if (!process) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "Failed to open stale process" << name << "PID:" << processId << "error:" << error;
        return false;
    }
    if (!TerminateProcess(process.get(), 1)) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "Failed to terminate stale process" << name << "PID:" << processId << "error:" << error;
        return false;
    }
    qCInfo(lcRuvod) << "Successfully killed stale process" << name << "PID:" << processId;
    return true;
}

} // namespace

void killStaleProcesses(quint32 sessionId)
{
    qCInfo(lcRuvod) << "Checking for stale processes in session" << sessionId;
    const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "Failed to create process snapshot:" << error;
        return;
    }
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    if (!Process32FirstW(snapshot.get(), &entry)) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "Failed to get first process:" << error;
        return;
    }

    int killed = 0;
    do {
        const QString name = QString::fromWCharArray(entry.szExeFile);
        DWORD processSession = 0;
        if (isStale(name) && ProcessIdToSessionId(entry.th32ProcessID, &processSession) && processSession == sessionId
            && kill(name, entry.th32ProcessID, sessionId)) {
            ++killed;
        }
    } while (Process32NextW(snapshot.get(), &entry));

    if (killed > 0)
        qCInfo(lcRuvod) << "Killed" << killed << "stale process(es) in session" << sessionId;
    else
        qCDebug(lcRuvod) << "No stale processes found in session" << sessionId;
}

} // namespace ruvo
