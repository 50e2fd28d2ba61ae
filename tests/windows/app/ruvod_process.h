#pragma once

#include "windows/support/child_process.h"

#include <QByteArray>
#include <QStringList>

#include <windows.h>

#include <optional>

namespace ruvo::test {

/// ruvod's entry point in a process of its own, with a service manager and Terminal Services that the test plays.
///
/// Options say what Windows does: "fail=FUNCTION:ERROR" (a call of the first thread fails), "dispatcher-error=N",
/// "sessions=1,2", "stop-at-running" (a stop in the instant of the running report), "returns-when-stopped" (so does
/// the dispatcher), "late-controls" (128 and stop while the daemon is destroyed), "first-thread-log-blocks" (the
/// log's file, for good, where the first thread opens it), and what the daemon does: "log-early" (a line while the
/// application is made), "start-fails", "start-raises", "slow-destruction" (ends only after the first thread had time
/// to go on).
class RuvodProcess
{
public:
    explicit RuvodProcess(const QStringList &options, const QStringList &arguments = {});

    /// Waits until the service has reported this state.
    bool waitForState(DWORD state);
    /// What the service's control handler answers.
    std::optional<DWORD> control(DWORD code);
    std::optional<int> waitForEnd() { return m_process.waitForEnd(); }

    /// Status reports, as reportText writes them.
    QStringList reports() { return notes("report "); }
    /// The watched calls of the first thread, once the process has ended.
    QStringList calls() { return notes("call "); }
    /// Everything that the test's side of the process noted and that starts with `prefix`, without it.
    QStringList notes(const QByteArray &prefix);

    /// What ruvod itself printed.
    QByteArray output();
    QByteArray errors() { return m_process.errors(); }
    /// The lines of its log without their times: "INFO: text".
    QStringList log();

private:
    ChildProcess m_process;
};

} // namespace ruvo::test
