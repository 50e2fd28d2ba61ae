#include "process/child_launch.h"

#include "common/log_category.h"
#include "process/process_specification.h"
#include "process/stdio_pipes.h"

#include <utility>

namespace ruvo {

LaunchContextPointer launchChild(const ProcessInfo &info)
{
    StdioPipes pipes;
    if (!createStdioPipes(pipes))
        return nullptr;

    const QString line = commandLine(info);
    qCDebug(lcRuvod) << "[ProcessManager] Starting Windows process in session" << info.sessionId;
    qCDebug(lcRuvod) << "[ProcessManager] Command line:" << line;
    const std::wstring directory = info.workingDirectory.toStdWString();
    qCDebug(lcRuvod) << "[ProcessManager] Running with elevated privileges (SYSTEM)";

    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    startup.hStdInput = pipes.stdinRead.get();
    startup.hStdOutput = pipes.stdoutWrite.get();
    startup.hStdError = pipes.stderrWrite.get();

    std::wstring writableLine = line.toStdWString(); // CreateProcessW may write into it
    PROCESS_INFORMATION created{};
    const BOOL launched =
        CreateProcessW(nullptr, writableLine.data(), nullptr, nullptr, TRUE,
                       CREATE_NEW_CONSOLE | CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT, nullptr,
                       directory.empty() ? nullptr : directory.c_str(), &startup, &created);
    const DWORD error = GetLastError(); // closing keeps it, logging does not
    // The child has its own; ours would keep the streams open after its end.
    pipes.stdinRead.reset();
    pipes.stdoutWrite.reset();
    pipes.stderrWrite.reset();
    if (!launched) {
        qCCritical(lcRuvod) << "[ProcessManager] CreateProcess failed:" << error;
        return nullptr;
    }

    auto context = std::make_shared<LaunchContext>();
    context->process.reset(created.hProcess);
    context->thread.reset(created.hThread);
    context->stdinWrite = std::move(pipes.stdinWrite);
    context->stdoutRead = std::move(pipes.stdoutRead);
    context->stderrRead = std::move(pipes.stderrRead);
    context->pid = created.dwProcessId;
    return context;
}

} // namespace ruvo
