#include "process/restart_policy.h"

#include <gtest/gtest.h>

#include <QList>

#include <limits>

namespace ruvo {
namespace {

ProcessInfo restarting(int maxAttempts, int attempts = 0)
{
    ProcessInfo info;
    info.autoRestart = true;
    info.maxRestartAttempts = maxAttempts;
    info.restartAttempts = attempts;
    return info;
}

TEST(RestartPolicy, finishesWhoeverAsksForNoRestart)
{
    ProcessInfo info;
    EXPECT_EQ(decideAfterExit(info, 0), ExitDecision::Finished);
    EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::Finished);
    EXPECT_EQ(info.restartAttempts, 0);
}

TEST(RestartPolicy, takesExitCodeZeroForTheEndEvenWithRestartsLeft)
{
    ProcessInfo info = restarting(3);
    EXPECT_EQ(decideAfterExit(info, 0), ExitDecision::Finished);
    EXPECT_EQ(info.restartAttempts, 0);
}

TEST(RestartPolicy, restartsAfterEveryOtherExitCode)
{
    for (const int exitCode : {1, -1, 255, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        ProcessInfo info = restarting(1);
        EXPECT_EQ(decideAfterExit(info, exitCode), ExitDecision::Restart) << exitCode;
        EXPECT_EQ(info.restartAttempts, 1) << exitCode;
    }
}

TEST(RestartPolicy, givesUpAtTheCrashAfterTheLastRestart)
{
    ProcessInfo info = restarting(3);
    for (int attempt = 1; attempt <= 3; ++attempt) {
        EXPECT_EQ(decideAfterExit(info, 7), ExitDecision::Restart);
        EXPECT_EQ(info.restartAttempts, attempt);
    }
    EXPECT_EQ(decideAfterExit(info, 7), ExitDecision::GiveUp);
    EXPECT_EQ(info.restartAttempts, 3);
}

TEST(RestartPolicy, givesUpAtTheFirstCrashWithoutAllowedRestarts)
{
    for (const int maxAttempts : {0, -1}) {
        ProcessInfo info = restarting(maxAttempts);
        EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::GiveUp) << maxAttempts;
        EXPECT_EQ(info.restartAttempts, 0) << maxAttempts;
    }
}

TEST(RestartPolicy, finishesWithExitCodeZeroAfterTheLastRestart)
{
    ProcessInfo info = restarting(3, 3);
    EXPECT_EQ(decideAfterExit(info, 0), ExitDecision::Finished);
}

TEST(RestartPolicy, countsARestartThatCannotLaunchAsAnAttempt)
{
    ProcessInfo info = restarting(3, 1); // the first restart is the one that failed
    EXPECT_TRUE(retryAfterFailedRestart(info));
    EXPECT_EQ(info.restartAttempts, 2);
    EXPECT_FALSE(retryAfterFailedRestart(info));
    EXPECT_EQ(info.restartAttempts, 3);
}

TEST(RestartPolicy, givesUpWhenTheOnlyAllowedRestartCannotLaunch)
{
    ProcessInfo info = restarting(1, 1);
    EXPECT_FALSE(retryAfterFailedRestart(info));
    EXPECT_EQ(info.restartAttempts, 2);
}

TEST(RestartPolicy, countsCrashesAndFailedLaunchesTogether)
{
    ProcessInfo info = restarting(4);
    EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::Restart); // 1, and cannot launch
    EXPECT_TRUE(retryAfterFailedRestart(info));                 // 2, which runs and crashes
    EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::Restart); // 3
    EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::Restart); // 4
    EXPECT_EQ(decideAfterExit(info, 1), ExitDecision::GiveUp);
}

} // namespace
} // namespace ruvo
