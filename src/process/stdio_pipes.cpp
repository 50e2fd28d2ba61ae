#include "process/stdio_pipes.h"

#include "common/log_category.h"

#include <utility>

namespace ruvo {

namespace {

/// Logs what went wrong at the pipe for the stream of this name. The error is read first: logging clears it.
bool fail(const char *stream)
{
    const DWORD error = GetLastError();
    qCCritical(lcRuvod) << "[ProcessManager] Failed to create" << stream << "pipe:" << error;
    return false;
}

/// A pipe with both ends inheritable, then `ours` not any more: else the child would hold our end too, and the
/// end of the stream would never come.
bool createPipe(const char *stream, KernelHandle &read, KernelHandle &write, KernelHandle &ours)
{
    SECURITY_ATTRIBUTES inheritable{};
    inheritable.nLength = sizeof(inheritable);
    inheritable.bInheritHandle = TRUE;
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0))
        return fail(stream);
    read.reset(readEnd);
    write.reset(writeEnd);
    return SetHandleInformation(ours.get(), HANDLE_FLAG_INHERIT, 0) || fail(stream);
}

} // namespace

bool createStdioPipes(StdioPipes &pipes)
{
    StdioPipes made;
    if (!createPipe("stdin", made.stdinRead, made.stdinWrite, made.stdinWrite)
        || !createPipe("stdout", made.stdoutRead, made.stdoutWrite, made.stdoutRead)
        || !createPipe("stderr", made.stderrRead, made.stderrWrite, made.stderrRead)) {
        return false;
    }
    pipes = std::move(made);
    return true;
}

} // namespace ruvo
