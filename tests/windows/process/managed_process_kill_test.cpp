#include "windows/process/managed_process_fixture.h"

#include "windows/support/import_redirection.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QThread>

namespace ruvo {
namespace {

const QStringList waiting = {"--print", "ready", "--wait"};

using ManagedProcessKill = ManagedProcessTest;

TEST_F(ManagedProcessKill, endsTheChildAtOnceAndSaysNothingOfItsEnd)
{
    ASSERT_TRUE(startReady(waiting));
    const QString pid = QString::number(process->info().pid);
    const KernelHandle child = openChild();
    log.clear();
    process->kill();
    EXPECT_EQ(log.lines().filter(QRegularExpression("Killing|Forcefully|TerminateProcess")),
              QStringList({
                  R"(DEBUG Killing process "child" with PID )" + pid,
                  R"(INFO [ProcessManager] Forcefully terminating process "child" with PID )" + pid,
                  R"(INFO [ProcessManager] TerminateProcess succeeded for "child")",
              }));
    expectNoRun();
    EXPECT_TRUE(hasEnded(child));
    EXPECT_EQ(exitCode(child), 1u);
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started", "stdout ready"}));
}

TEST_F(ManagedProcessKill, isFinalEvenWhereRestartsAreAllowed)
{
    // Often, as this is about a race between the monitor and the end.
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(start(waiting, {{"auto-restart", true}, {"restart-delay-ms", 0}}));
        process->kill();
        test::processPending();
        EXPECT_TRUE(nothingIsPending());
    }
    EXPECT_EQ(count("started"), 20);
    EXPECT_FALSE(log.contains("handleProcessExit"));
}

TEST_F(ManagedProcessKill, mayComeFromWhoHearsOfTheStart)
{
    KernelHandle child;
    QObject::connect(process.get(), &ManagedProcess::processStarted, [&] {
        child = openChild();
        process->kill();
    });
    EXPECT_TRUE(start(waiting));
    EXPECT_TRUE(hasEnded(child));
    expectNoRun();
    EXPECT_TRUE(process->findChildren<QThread *>().isEmpty());
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started"}));
}

TEST_F(ManagedProcessKill, tellsTheMonitorBeforeItEndsTheChild)
{
    ASSERT_TRUE(startReady(waiting));
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("Starting process monitoring"); }));
    bool monitorKnew = false;
    const test::ImportRedirection<IMPORT(TerminateProcess)> terminate([&](HANDLE child, UINT code) {
        EXPECT_EQ(code, 1u);
        monitorKnew = log.contains("Signaling stop event");
        return terminate.real(child, code);
    });
    process->kill();
    EXPECT_TRUE(monitorKnew);
}

TEST_F(ManagedProcessKill, takesNoNoticeWhereNothingRuns)
{
    log.clear();
    process->kill();
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(ManagedProcessKill, byForceComplainsWhereNothingRuns)
{
    log.clear();
    process->terminateForcefully();
    EXPECT_EQ(log.lines(), QStringList({R"(WARNING [ProcessManager] Cannot kill process "child" - no handle)"}));
}

TEST_F(ManagedProcessKill, stopsTheDeadlineOfAStop)
{
    ASSERT_TRUE(startReady({"--ignore-ctrl-c", "--print", "ready", "--wait"}));
    process->stop(60000);
    EXPECT_FALSE(nothingIsPending());
    process->kill();
    EXPECT_TRUE(nothingIsPending());
    expectNoRun();
}

TEST_F(ManagedProcessKill, leavesAPendingRestartAlone)
{
    ASSERT_TRUE(start({"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 60000}}));
    ASSERT_TRUE(test::waitUntil([this] { return process->info().restartAttempts == 1; }));
    log.clear();
    process->kill();
    EXPECT_FALSE(nothingIsPending());
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(ManagedProcessKill, ofAChildThatHadEndedBeforeStillTellsItsEnd)
{
    ASSERT_TRUE(start({"--exit", "4"}));
    const KernelHandle child = openChild();
    ASSERT_TRUE(hasEnded(child)); // and nobody has handled that yet
    process->kill();
    expectNoRun();
    EXPECT_TRUE(waitFor("finished 4"));
    EXPECT_EQ(heard, QStringList({"started", "finished 4"}));
}

TEST_F(ManagedProcessKill, andANewStartAreNotEndedByAnExitBeforeThem)
{
    ASSERT_TRUE(start({"--exit", "4"}));
    const KernelHandle child = openChild();
    ASSERT_TRUE(hasEnded(child));
    // The exit waits for the service thread, which has not looked at it when the next run starts.
    QElapsedTimer timer;
    timer.start();
    while (!log.contains("Queued handleProcessExit") && timer.elapsed() < 15000)
        Sleep(10);
    process->kill();
    ASSERT_TRUE(start(waiting));
    test::processPending();
    EXPECT_FALSE(heard.contains("finished 4"));
    EXPECT_TRUE(process->isRunning());
    EXPECT_FALSE(log.contains("handleProcessExit] Processing"));
    EXPECT_TRUE(waitFor("stdout ready"));
}

TEST_F(ManagedProcessKill, logsATerminationThatFailsAndLetsTheChildGo)
{
    ASSERT_TRUE(startReady(waiting));
    const KernelHandle child = openChild();
    {
        const test::ImportRedirection<IMPORT(TerminateProcess)> terminate([](HANDLE, UINT) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        });
        process->kill();
    }
    EXPECT_EQ(log.linesWith("WARNING"),
              QStringList({R"(WARNING [ProcessManager] TerminateProcess failed for "child" with error: 5)"}));
    expectNoRun();
    EXPECT_FALSE(hasEnded(child, 0));
    TerminateProcess(child.get(), 1);
    EXPECT_TRUE(hasEnded(child));
    test::processPending();
    EXPECT_EQ(count("finished 1"), 0);
}

TEST_F(ManagedProcessKill, doesNotWaitForAChildThatDoesNotReadItsInput)
{
    ASSERT_TRUE(startReady(waiting));
    process->writeToStdin(QByteArray(1024 * 1024, 'x'));
    QElapsedTimer timer;
    timer.start();
    process->kill();
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_FALSE(log.contains("leaving it behind"));
}

TEST_F(ManagedProcessKill, isFollowedByNoOutputButWhatWasAlreadyRead)
{
    ASSERT_TRUE(startReady({"--print", "ready", "--read-line", "--flood", "stdout", "0", "0"}));
    process->writeToStdin("\n");
    ASSERT_TRUE(test::waitUntil([this] { return heard.size() > 2; }));
    process->kill();
    test::processPending();
    const qsizetype before = heard.size();
    EXPECT_FALSE(test::waitUntil([&] { return heard.size() > before; }, std::chrono::milliseconds(200)));
}

} // namespace
} // namespace ruvo
