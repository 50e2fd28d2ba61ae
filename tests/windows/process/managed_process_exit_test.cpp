#include "windows/process/managed_process_fixture.h"

#include "windows/support/import_redirection.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

namespace ruvo {
namespace {

const QString prefix = "[ProcessManager] Process \"child\" ";

class ManagedProcessExit : public ManagedProcessTest
{
protected:
    /// A child that crashes with code 3 at once, each time that it is started.
    bool startCrashing(int maxAttempts, int delay = 0)
    {
        return start({"--exit", "3"},
                     {{"auto-restart", true}, {"max-restart-attempts", maxAttempts}, {"restart-delay-ms", delay}});
    }
    QStringList restartLines() const { return log.lines().filter(QRegularExpression("^(INFO|WARNING)")); }
};

TEST_F(ManagedProcessExit, isSignalledWithItsCode)
{
    ASSERT_TRUE(start({"--exit", "5"}));
    EXPECT_TRUE(waitFor("finished 5"));
    expectNoRun();
    EXPECT_TRUE(nothingIsPending());
    // The monitor goes on while the service thread takes over.
    EXPECT_TRUE(test::waitUntil([this] { return log.contains("Queued handleProcessExit"); }));
    EXPECT_EQ(log.lines().filter(QRegularExpression("onWindowsProcessExited|exited with code: ")),
              QStringList({
                  "DEBUG [ProcessMonitorWorker] Process exited with code: 5 - about to emit signal",
                  R"(DEBUG [ProcessManager::onWindowsProcessExited] CALLED for process "child" with exit code 5)",
                  "DEBUG [ProcessManager::onWindowsProcessExited] Queued handleProcessExit via QTimer::singleShot",
              }));
    EXPECT_EQ(
        log.lines().filter(QRegularExpression("handleProcessExit\\]|exited with code 5")),
        QStringList({
            R"(DEBUG [ProcessManager::handleProcessExit] Processing in main thread for "child")",
            "DEBUG " + prefix + "exited with code 5 - autoRestart: false restartAttempts: 0 maxRestartAttempts: 3",
        }));
    EXPECT_EQ(restartLines(), QStringList());
}

TEST_F(ManagedProcessExit, isSignalledWithCodesBeyondTheSignBitAsNegativeOnes)
{
    ASSERT_TRUE(start({"--exit", "0xC000013A"}));
    EXPECT_TRUE(waitFor("finished -1073741510"));
}

TEST_F(ManagedProcessExit, endsTheThreadsOfTheRun)
{
    ASSERT_TRUE(start({"--exit", "0"}));
    EXPECT_EQ(process->findChildren<QThread *>().size(), 2);
    ASSERT_TRUE(waitFor("finished 0"));
    EXPECT_TRUE(process->findChildren<QThread *>().isEmpty());
}

TEST_F(ManagedProcessExit, stopsTheDeadlineOfAStop)
{
    ASSERT_TRUE(startReady({"--ctrl-c-exit", "6", "--print", "ready", "--wait"}));
    process->stop(60000);
    ASSERT_TRUE(waitFor("finished 6"));
    EXPECT_TRUE(nothingIsPending());
}

TEST_F(ManagedProcessExit, ofACrashingChildIsFinalAfterAllItsRestarts)
{
    ASSERT_TRUE(startCrashing(3));
    EXPECT_TRUE(waitFor("finished 3"));
    EXPECT_EQ(heard, QStringList({"started", "started", "started", "started", "finished 3"}));
    EXPECT_EQ(restartLines(),
              QStringList({
                  "INFO " + prefix + "crashed (exit code 3 ), scheduling restart attempt 1 of 3 in 0 ms",
                  R"(INFO [ProcessManager] Attempting to restart process "child" (attempt 1 of 3 ))",
                  "INFO " + prefix + "restarted successfully",
                  "INFO " + prefix + "crashed (exit code 3 ), scheduling restart attempt 2 of 3 in 0 ms",
                  R"(INFO [ProcessManager] Attempting to restart process "child" (attempt 2 of 3 ))",
                  "INFO " + prefix + "restarted successfully",
                  "INFO " + prefix + "crashed (exit code 3 ), scheduling restart attempt 3 of 3 in 0 ms",
                  R"(INFO [ProcessManager] Attempting to restart process "child" (attempt 3 of 3 ))",
                  "INFO " + prefix + "restarted successfully",
                  "WARNING " + prefix + "exceeded max restart attempts ( 3 ), giving up",
              }));
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
}

TEST_F(ManagedProcessExit, isFollowedByARestartOnlyAfterTheDelay)
{
    ASSERT_TRUE(startCrashing(1, 400));
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("scheduling restart attempt 1 of 1 in 400 ms"); }));
    expectNoRun();
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(test::waitUntil([this] { return count("started") == 2; }));
    EXPECT_GE(timer.elapsed(), 350);
    EXPECT_TRUE(waitFor("finished 3"));
}

TEST_F(ManagedProcessExit, isFollowedByARestartAtOnceWhereTheDelayIsNegative)
{
    ASSERT_TRUE(startCrashing(1, -1000));
    EXPECT_TRUE(waitFor("finished 3"));
    EXPECT_EQ(count("started"), 2);
    EXPECT_TRUE(log.contains("scheduling restart attempt 1 of 1 in -1000 ms"));
}

TEST_F(ManagedProcessExit, isFollowedByARunWithNewHandlesProcessIdAndStartTime)
{
    ASSERT_TRUE(start({"--print", "ready", "--read-line", "--exit", "3"},
                      {{"auto-restart", true}, {"restart-delay-ms", 1100}}));
    ASSERT_TRUE(waitFor("stdout ready"));
    const ProcessInfo first = process->info();
    TerminateProcess(first.processHandle, 3);
    ASSERT_TRUE(test::waitUntil([this] { return count("started") == 2; }));
    const ProcessInfo second = process->info();
    EXPECT_NE(second.pid, first.pid);
    EXPECT_GE(first.startTime.msecsTo(second.startTime), 1000);
    EXPECT_EQ(second.state, 2);
    EXPECT_EQ(second.restartAttempts, 1);
    EXPECT_TRUE(second.autoRestart);
    EXPECT_NE(second.processHandle, nullptr);
    EXPECT_TRUE(process->isRunning());
    EXPECT_TRUE(test::waitUntil([this] { return count("stdout ready") == 2; }));
}

TEST_F(ManagedProcessExit, isFollowedByARunOfTheSpecificationAsItWasGiven)
{
    const QStringList script = {"--exit", "3"};
    ASSERT_TRUE(start(script, {{"auto-restart", true}, {"restart-delay-ms", 60000}}));
    ASSERT_TRUE(test::waitUntil([this] { return process->info().restartAttempts == 1; }));
    process->stop(0); // which takes the settings back
    ASSERT_FALSE(process->info().autoRestart);
    process->attemptRestart();
    EXPECT_EQ(count("started"), 2);
    EXPECT_TRUE(process->info().autoRestart);
    EXPECT_EQ(process->info().arguments, script);
    EXPECT_EQ(log.linesWith("Will create process in session").size(), 2);
    EXPECT_TRUE(test::waitUntil([this] { return process->info().restartAttempts == 1; }));
}

TEST_F(ManagedProcessExit, withCodeZeroIsFinal)
{
    ASSERT_TRUE(start({"--exit", "0"}, {{"auto-restart", true}, {"restart-delay-ms", 0}}));
    EXPECT_TRUE(waitFor("finished 0"));
    EXPECT_TRUE(nothingIsPending());
    EXPECT_EQ(count("started"), 1);
    EXPECT_EQ(restartLines(), QStringList());
}

TEST_F(ManagedProcessExit, isFinalAtTheFirstCrashWithoutAllowedRestarts)
{
    ASSERT_TRUE(startCrashing(0));
    EXPECT_TRUE(waitFor("finished 3"));
    EXPECT_EQ(heard, QStringList({"started", "finished 3"}));
    EXPECT_EQ(restartLines(), QStringList({"WARNING " + prefix + "exceeded max restart attempts ( 0 ), giving up"}));
}

TEST_F(ManagedProcessExit, tellsMinusOneWhenNoRestartCanBeLaunched)
{
    ASSERT_TRUE(startCrashing(3));
    const test::ImportRedirection<IMPORT(CreateProcessW)> createProcess([](auto...) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    });
    EXPECT_TRUE(waitFor("finished -1"));
    EXPECT_EQ(heard, QStringList({"started", "finished -1"}));
    EXPECT_EQ(restartLines(),
              QStringList({
                  "INFO " + prefix + "crashed (exit code 3 ), scheduling restart attempt 1 of 3 in 0 ms",
                  R"(INFO [ProcessManager] Attempting to restart process "child" (attempt 1 of 3 ))",
                  R"(WARNING [ProcessManager] Failed to restart process "child")",
                  "INFO [ProcessManager] Scheduling restart attempt 2 of 3 in 0 ms",
                  R"(INFO [ProcessManager] Attempting to restart process "child" (attempt 2 of 3 ))",
                  R"(WARNING [ProcessManager] Failed to restart process "child")",
                  "WARNING " + prefix + "exceeded max restart attempts ( 3 ), giving up",
              }));
    EXPECT_EQ(log.linesWith("CRITICAL").size(), 2);
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
}

TEST_F(ManagedProcessExit, isFollowedByALaterRestartWhereOneCouldNotBeLaunched)
{
    ASSERT_TRUE(startCrashing(3));
    int launches = 0;
    const test::ImportRedirection<IMPORT(CreateProcessW)> createProcess([&](auto... arguments) {
        if (++launches == 1) {
            SetLastError(ERROR_SHARING_VIOLATION);
            return FALSE;
        }
        return createProcess.real(arguments...);
    });
    EXPECT_TRUE(waitFor("finished 3"));
    // The first restart failed, the second and third ran.
    EXPECT_EQ(heard, QStringList({"started", "started", "started", "finished 3"}));
    EXPECT_EQ(launches, 3);
}

TEST_F(ManagedProcessExit, waitsTheDelayAgainAfterARestartThatCouldNotBeLaunched)
{
    ASSERT_TRUE(startCrashing(3, 300));
    const test::ImportRedirection<IMPORT(CreateProcessW)> createProcess([](auto...) { return FALSE; });
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("Scheduling restart attempt 2 of 3 in 300 ms"); }));
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(waitFor("finished -1"));
    EXPECT_GE(timer.elapsed(), 250);
}

TEST_F(ManagedProcessExit, isSignalledAfterTheOutputThatWasRead)
{
    ASSERT_TRUE(start({"--print", "last words", "--error", "last error", "--read-line", "--exit", "5"}));
    // The service thread does nothing until both the output and the exit wait for it.
    ASSERT_TRUE(log.contains("Monitor signal connected"));
    Sleep(1000);
    process->writeToStdin("go\n");
    QElapsedTimer timer;
    timer.start();
    while (!log.contains("Queued handleProcessExit") && timer.elapsed() < 15000)
        Sleep(10);
    EXPECT_EQ(heard, QStringList({"started"}));
    ASSERT_TRUE(waitFor("finished 5"));
    EXPECT_EQ(heard.last(), "finished 5");
    EXPECT_EQ(count("finished 5"), 1);
    const QString text = heard.join('\n');
    EXPECT_TRUE(text.contains("stdout last words")) << text.toStdString();
    EXPECT_TRUE(text.contains("stderr last error")) << text.toStdString();
}

TEST_F(ManagedProcessExit, isTheLastThatIsHeardOfARun)
{
    for (int i = 0; i < 15; ++i) {
        heard.clear();
        ASSERT_TRUE(start({"--flood", "both", "0", QString::number(20 + 10 * i)}));
        ASSERT_TRUE(waitFor("finished 0"));
        test::processPending();
        EXPECT_EQ(heard.last(), "finished 0");
        EXPECT_EQ(heard.first(), "started");
    }
}

TEST_F(ManagedProcessExit, isNotHeardOfARetiredProcess)
{
    ASSERT_TRUE(start({"--exit", "5"}, {{"auto-restart", true}, {"restart-delay-ms", 0}}));
    process->retire();
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("Queued handleProcessExit"); }));
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started"}));
    EXPECT_TRUE(nothingIsPending());
    EXPECT_FALSE(log.contains("handleProcessExit] Processing"));
}

TEST_F(ManagedProcessExit, endsTheRestartThatWasPendingAtTheRetirement)
{
    ASSERT_TRUE(startCrashing(3, 60000));
    ASSERT_TRUE(test::waitUntil([this] { return !nothingIsPending(); }));
    process->retire();
    EXPECT_TRUE(nothingIsPending());
}

} // namespace
} // namespace ruvo
