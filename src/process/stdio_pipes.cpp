#include "process/stdio_pipes.h"

#include "common/log_category.h"

#include <utility>

namespace ruvo {

namespace {

/// A pipe with both ends inheritable, then `ours` not any more: else the child would hold our end too, and the
/// end of the stream would never come.
bool createPipe(KernelHandle &read, KernelHandle &write, KernelHandle &ours)
{
    SECURITY_ATTRIBUTES inheritable{};
    inheritable.nLength = sizeof(inheritable);
    inheritable.bInheritHandle = TRUE;
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0))
        return false;
    read.reset(readEnd);
    write.reset(writeEnd);
    return SetHandleInformation(ours.get(), HANDLE_FLAG_INHERIT, 0);
}

} // namespace

bool createStdioPipes(StdioPipes &pipes)
{
    StdioPipes made;
    if (!createPipe(made.stdinRead, made.stdinWrite, made.stdinWrite)) {
        qCCritical(lcRuvod) << "[ProcessManager] Failed to create stdin pipe:" << GetLastError();
        return false;
    }
    if (!createPipe(made.stdoutRead, made.stdoutWrite, made.stdoutRead)) {
        qCCritical(lcRuvod) << "[ProcessManager] Failed to create stdout pipe:" << GetLastError();
        return false;
    }
    if (!createPipe(made.stderrRead, made.stderrWrite, made.stderrRead)) {
        qCCritical(lcRuvod) << "[ProcessManager] Failed to create stderr pipe:" << GetLastError();
        return false;
    }
    pipes = std::move(made);
    return true;
}

} // namespace ruvo
