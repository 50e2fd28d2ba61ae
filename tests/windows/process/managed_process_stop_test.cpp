#include "windows/process/managed_process_fixture.h"

#include "windows/support/call_journal.h"

#include <QElapsedTimer>
#include <QRegularExpression>

namespace ruvo {
namespace {

constexpr DWORD someError = 1234;
const QStringList ignoring = {"--ignore-ctrl-c", "--print", "ready", "--wait"};
const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};

class ManagedProcessStop : public ManagedProcessTest
{
protected:
    /// What the service thread has logged, with the child's number left out.
    QStringList linesWithoutPid(qint64 pid) const
    {
        QStringList lines = log.lines();
        lines.removeIf([](const QString &line) { return line.contains("[ProcessMonitorWorker]"); });
        lines.replaceInStrings(QRegularExpression(QString("(PID|process) %1$").arg(pid)), R"(\1 <pid>)");
        return lines;
    }
};

TEST_F(ManagedProcessStop, sendsCtrlCAndWaitsForTheEnd)
{
    ASSERT_TRUE(startReady(obeying));
    const qint64 pid = process->info().pid;
    log.clear();
    process->stop(10000);
    EXPECT_FALSE(nothingIsPending());
    EXPECT_EQ(linesWithoutPid(pid).filter(QRegularExpression("ManagedProcess::stop|Ctrl|Attached")),
              QStringList({
                  R"(DEBUG [ManagedProcess::stop] Called for process "child" with timeout 10000)",
                  R"(DEBUG [ManagedProcess::stop] Terminating Windows process "child" with PID <pid>)",
                  "DEBUG [ProcessManager] Sending Ctrl+C to process <pid>",
                  "DEBUG [ProcessManager] Attached to console on attempt 1",
                  "DEBUG [ManagedProcess::stop] Kill timer started for 10000 ms",
              }));
    EXPECT_TRUE(waitFor("finished 9"));
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
    EXPECT_FALSE(log.contains("Forcefully"));
    EXPECT_FALSE(log.contains("WARNING"));
}

TEST_F(ManagedProcessStop, terminatesAChildThatIgnoresCtrlCAtTheDeadline)
{
    ASSERT_TRUE(startReady(ignoring));
    const qint64 pid = process->info().pid;
    const KernelHandle child = openChild();
    log.clear();
    QElapsedTimer timer;
    timer.start();
    process->stop(300);
    EXPECT_TRUE(test::waitUntil([&] { return log.contains("TerminateProcess"); }));
    EXPECT_GE(timer.elapsed(), 290);
    EXPECT_EQ(linesWithoutPid(pid).filter("Kill").first(2),
              QStringList({
                  "DEBUG [ManagedProcess::stop] Kill timer started for 300 ms",
                  R"(DEBUG Killing process "child" with PID <pid>)",
              }));
    EXPECT_EQ(linesWithoutPid(pid).filter("INFO"),
              QStringList({
                  R"(INFO [ProcessManager] Forcefully terminating process "child" with PID <pid>)",
                  R"(INFO [ProcessManager] TerminateProcess succeeded for "child")",
              }));
    EXPECT_TRUE(hasEnded(child));
    EXPECT_EQ(exitCode(child), 1u);
    expectNoRun();
    EXPECT_EQ(heard, QStringList({"started", "stdout ready"}));
}

TEST_F(ManagedProcessStop, hasNoDeadlineBelowOneMillisecond)
{
    ASSERT_TRUE(startReady(ignoring));
    const KernelHandle child = openChild();
    for (const int timeout : {0, -1}) {
        log.clear();
        process->stop(timeout);
        EXPECT_TRUE(nothingIsPending()) << timeout;
        EXPECT_FALSE(log.contains("Kill timer")) << timeout;
    }
    EXPECT_EQ(delivery.sent(), 2);
    EXPECT_FALSE(hasEnded(child, 0));
    EXPECT_TRUE(process->isRunning());
}

TEST_F(ManagedProcessStop, terminatesAtOnceWhatCtrlCDoesNotReach)
{
    ASSERT_TRUE(startReady(obeying));
    const qint64 pid = process->info().pid;
    const KernelHandle child = openChild();
    const test::ImportRedirection<IMPORT(AttachConsole)> attach([](DWORD) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    log.clear();
    process->stop(10000);
    EXPECT_EQ(linesWithoutPid(pid).filter(QRegularExpression("WARNING|INFO")),
              QStringList({
                  "WARNING [ProcessManager] AttachConsole failed with error: 5",
                  R"(WARNING [ManagedProcess::stop] Failed to send Ctrl+C to process "child" )"
                  ", killing immediately (handle: valid )",
                  R"(INFO [ProcessManager] Forcefully terminating process "child" with PID <pid>)",
                  R"(INFO [ProcessManager] TerminateProcess succeeded for "child")",
              }));
    EXPECT_TRUE(hasEnded(child));
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
    test::processPending();
    EXPECT_EQ(count("finished 1"), 0);
}

TEST_F(ManagedProcessStop, terminatesAfterTwentyAttemptsWhatHasNoConsole)
{
    ASSERT_TRUE(startReady(obeying));
    const qint64 pid = process->info().pid;
    const KernelHandle child = openChild();
    int attempts = 0;
    const test::ImportRedirection<IMPORT(AttachConsole)> attach([&](DWORD console) {
        EXPECT_EQ(console, pid);
        ++attempts;
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    });
    int pauses = 0;
    const DWORD serviceThread = GetCurrentThreadId();
    const test::ImportRedirection<IMPORT(Sleep)> sleep([&](DWORD milliseconds) {
        if (GetCurrentThreadId() != serviceThread || milliseconds != 50)
            return sleep.real(milliseconds);
        EXPECT_EQ(++pauses, attempts);
        EXPECT_FALSE(hasEnded(child, 0));
    });
    log.clear();
    process->stop(10000);
    EXPECT_EQ(attempts, 20);
    EXPECT_EQ(pauses, 19);
    EXPECT_EQ(linesWithoutPid(pid).filter(QRegularExpression("WARNING|INFO")),
              QStringList({
                  "WARNING [ProcessManager] Failed to attach to process console after retries",
                  R"(WARNING [ManagedProcess::stop] Failed to send Ctrl+C to process "child" )"
                  ", killing immediately (handle: valid )",
                  R"(INFO [ProcessManager] Forcefully terminating process "child" with PID <pid>)",
                  R"(INFO [ProcessManager] TerminateProcess succeeded for "child")",
              }));
    EXPECT_TRUE(hasEnded(child));
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started", "stdout ready"}));
}

TEST_F(ManagedProcessStop, takesNoNoticeWhereNothingRuns)
{
    log.clear();
    process->stop(10000);
    EXPECT_EQ(log.lines(), QStringList({
                               R"(DEBUG [ManagedProcess::stop] Called for process "child" with timeout 10000)",
                               R"(DEBUG [ManagedProcess::stop] Process "child" already not running (no handle))",
                           }));
    EXPECT_TRUE(nothingIsPending());
    EXPECT_EQ(delivery.sent(), 0);
}

TEST_F(ManagedProcessStop, keepsAStoppedChildFromBeingRestarted)
{
    ASSERT_TRUE(startReady(obeying, {{"auto-restart", true}, {"restart-delay-ms", 0}}));
    process->stop(10000);
    EXPECT_FALSE(process->info().autoRestart);
    EXPECT_TRUE(waitFor("finished 9"));
    EXPECT_TRUE(nothingIsPending());
    EXPECT_EQ(count("started"), 1);
}

TEST_F(ManagedProcessStop, cancelsAPendingRestart)
{
    ASSERT_TRUE(start({"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 60000}}));
    ASSERT_TRUE(test::waitUntil([this] { return process->info().restartAttempts == 1; }));
    EXPECT_FALSE(nothingIsPending());
    log.clear();
    process->stop(10000);
    EXPECT_EQ(log.lines(), QStringList({
                               R"(DEBUG [ManagedProcess::stop] Called for process "child" with timeout 10000)",
                               R"(DEBUG [ManagedProcess::stop] Canceling pending restart for process "child")",
                               R"(DEBUG [ManagedProcess::stop] Process "child" already not running (no handle))",
                           }));
    EXPECT_TRUE(nothingIsPending());
    EXPECT_EQ(process->info().restartAttempts, 0);
    EXPECT_EQ(heard, QStringList({"started"}));
    expectNoRun();
}

TEST_F(ManagedProcessStop, ofAChildThatHasJustEndedStillTellsItsEnd)
{
    ASSERT_TRUE(start({"--exit", "4"}));
    const KernelHandle child = openChild();
    ASSERT_TRUE(hasEnded(child)); // and nobody has handled that yet
    process->stop(10000);
    EXPECT_TRUE(waitFor("finished 4"));
    expectNoRun();
}

TEST_F(ManagedProcessStop, sendsCtrlCToNobodyWhereNothingRuns)
{
    log.clear();
    EXPECT_FALSE(process->sendCtrlC());
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(ManagedProcessStop, byDestructionAsksTheChildAndLetsItGo)
{
    ASSERT_TRUE(startReady(obeying));
    const KernelHandle child = openChild();
    process.reset();
    EXPECT_EQ(delivery.sent(), 1);
    EXPECT_TRUE(hasEnded(child));
    EXPECT_EQ(exitCode(child), 9u);
}

TEST_F(ManagedProcessStop, byDestructionAsksNobodyWhereTheChildHasEnded)
{
    ASSERT_TRUE(start({"--exit", "4"}));
    const KernelHandle child = openChild();
    ASSERT_TRUE(hasEnded(child)); // and nobody has handled that yet
    log.clear();
    process.reset();
    EXPECT_EQ(delivery.sent(), 0);
    EXPECT_EQ(log.linesWith("Ctrl+C"), QStringList());
    EXPECT_EQ(log.linesWith("WARNING"), QStringList());
}

TEST_F(ManagedProcessStop, byDestructionDoesNotTerminateAChildThatIgnoresCtrlC)
{
    ASSERT_TRUE(startReady(ignoring));
    const KernelHandle child = openChild();
    process.reset();
    EXPECT_FALSE(hasEnded(child, 200));
    TerminateProcess(child.get(), 1);
}

TEST_F(ManagedProcessStop, byDestructionDoesNotWaitForAChildThatDoesNotReadItsInput)
{
    ASSERT_TRUE(startReady(ignoring));
    const KernelHandle child = openChild();
    process->writeToStdin(QByteArray(1024 * 1024, 'x'));
    QElapsedTimer timer;
    timer.start();
    process.reset();
    EXPECT_LT(timer.elapsed(), 4900); // it waits 5 s for a thread that does not end
    EXPECT_FALSE(hasEnded(child, 0));
    TerminateProcess(child.get(), 1);
}

TEST_F(ManagedProcessStop, ofTheDeadlineAloneIsPossible)
{
    ASSERT_TRUE(startReady(ignoring));
    process->stop(100);
    process->stopKillTimer();
    EXPECT_TRUE(nothingIsPending());
    EXPECT_TRUE(process->isRunning());
}

} // namespace
} // namespace ruvo
