#pragma once

#include "process/process_info.h"

namespace ruvo {

// When a process that ended is started again. The limit counts all restarts in the life of a registry entry; only
// a stop resets it.

enum class ExitDecision {
    Finished, ///< The end: exit code 0, or no restart asked for.
    Restart,  ///< Once more; the attempt is counted.
    GiveUp,   ///< It crashed, and all its restarts are used up.
};

/// After the process ended with `exitCode`.
ExitDecision decideAfterExit(ProcessInfo &info, int exitCode);

/// After a restart could not launch, which counts as an attempt: true for one more.
bool retryAfterFailedRestart(ProcessInfo &info);

} // namespace ruvo
