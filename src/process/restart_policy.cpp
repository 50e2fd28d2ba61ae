#include "process/restart_policy.h"

namespace ruvo {

ExitDecision decideAfterExit(ProcessInfo &info, int exitCode)
{
    if (!info.autoRestart || exitCode == 0)
        return ExitDecision::Finished;
    if (info.restartAttempts >= info.maxRestartAttempts)
        return ExitDecision::GiveUp;
    ++info.restartAttempts;
    return ExitDecision::Restart;
}

bool retryAfterFailedRestart(ProcessInfo &info)
{
    ++info.restartAttempts;
    return info.restartAttempts < info.maxRestartAttempts;
}

} // namespace ruvo
