#pragma once

#include "common/windows_handles.h"

#include <QProcess>

#include <atomic>
#include <memory>

namespace ruvo {

/// One run of a child: its handles, and what its threads share. Each launch has a context of its own, so that
/// nothing of one run (a stop, an exit, bytes for its standard input) reaches the next.
///
/// Held by the ManagedProcess and by the run's workers, and closed with the last of them: a worker that cannot be
/// joined keeps its handles valid.
struct LaunchContext
{
    // Closed in the reverse of this order: the child's streams first, its process and thread last.
    KernelHandle thread;
    KernelHandle process;
    KernelHandle stderrRead;
    KernelHandle stdoutRead;
    KernelHandle stdinWrite;
    DWORD pid = 0;
    /// QProcess::Running until the exit is handled; read by the reader thread.
    std::atomic<int> state = QProcess::Running;

    /// Whether the child has ended, whether or not anybody has noticed.
    bool hasExited() const;
};

using LaunchContextPointer = std::shared_ptr<LaunchContext>;

} // namespace ruvo
