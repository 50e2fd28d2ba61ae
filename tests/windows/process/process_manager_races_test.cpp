// What happens within one turn of the event loop, or around an object that was replaced.

#include "windows/process/process_manager_fixture.h"

#include "process/managed_process.h"

namespace ruvo {
namespace {

const QStringList waiting = {"--ignore-ctrl-c", "--print", "ready", "--wait"};

class ProcessManagerRaces : public ProcessManagerTest
{
protected:
    /// Waits without the event loop until the child has ended, and the end is waiting to be handled.
    bool waitForUnhandledEnd()
    {
        for (int i = 0; i < 1500; ++i) {
            if (log.contains("Queued handleProcessExit"))
                return true;
            Sleep(10);
        }
        return false;
    }
    void settle()
    {
        test::waitUntil([] { return false; }, std::chrono::milliseconds(300));
    }
};

TEST_F(ProcessManagerRaces, aKillRightAfterTheStartLeavesNothingRunning)
{
    for (int i = 0; i < 10; ++i) {
        start("child", waiting, {{"auto-restart", true}, {"restart-delay-ms", 0}});
        const qint64 pid = pidOf("child");
        EXPECT_EQ(manager->killProcess("child")["status"], "killed");
        EXPECT_TRUE(test::waitForDeath(pid));
    }
    settle();
    EXPECT_EQ(eventsOf("child"), QStringList(10, "started"));
    EXPECT_EQ(registered(), 1);
}

TEST_F(ProcessManagerRaces, aStartRightAfterAKillSucceeds)
{
    ASSERT_TRUE(startReady("child", {"--print", "ready", "--read-line", "--flood", "both", "0", "0"}));
    manager->writeToProcess("child", "\n");
    ASSERT_TRUE(test::waitUntil([this] { return events.size() > 4; }));
    const qsizetype before = eventsOf("child").size();
    manager->killProcess("child");
    EXPECT_EQ(start("child", {"--print", "the new one", "--wait"})["status"], "started");
    ASSERT_TRUE(waitFor("child", "stdout: the new one\n"));
    // Of the flood of the killed one nothing came any more.
    EXPECT_EQ(eventsOf("child").mid(before), QStringList({"started", "stdout: the new one\n"}));
    EXPECT_EQ(registered(), 1);
    EXPECT_TRUE(manager->getProcessStatus("child")["running"].toBool());
}

TEST_F(ProcessManagerRaces, aStartRightAfterACrashReplacesTheCrashedOne)
{
    start("child", {"--print", "old", "--sleep", "100", "--exit", "3"},
          {{"auto-restart", true}, {"restart-delay-ms", 0}});
    ASSERT_TRUE(waitForUnhandledEnd());
    EXPECT_EQ(start("child", {"--print", "new", "--wait"})["status"], "started");
    EXPECT_TRUE(log.contains(R"(Found stale process entry for "child" - state: QProcess::Running - cleaning up)"));
    ASSERT_TRUE(waitFor("child", "stdout: new\n"));
    settle();
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "started", "stdout: new\n"}));
    EXPECT_EQ(registered(), 1);
    EXPECT_TRUE(manager->getProcessStatus("child")["running"].toBool());
}

TEST_F(ProcessManagerRaces, aStartDuringAPendingRestartReplacesIt)
{
    start("child", {"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 200}});
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("scheduling restart attempt"); }));
    EXPECT_EQ(start("child", waiting)["status"], "started");
    ASSERT_TRUE(waitFor("child", "stdout: ready\n"));
    settle();
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "started", "stdout: ready\n"}));
    EXPECT_FALSE(log.contains("Attempting to restart"));
}

TEST_F(ProcessManagerRaces, aKillRightAfterACrashStillTellsTheEnd)
{
    start("child", {"--exit", "3"});
    ASSERT_TRUE(waitForUnhandledEnd());
    EXPECT_EQ(manager->killProcess("child")["status"], "killed");
    EXPECT_TRUE(waitFor("child", "finished: 3"));
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerRaces, aStartRightAfterAStopIsRefusedWhileTheChildStillRuns)
{
    ASSERT_TRUE(startReady("child", waiting));
    manager->stopProcess("child");
    EXPECT_EQ(start("child", waiting)["error"], "Process already exists: child");
}

TEST_F(ProcessManagerRaces, aStopDuringAPendingRestartEndsItAndKeepsTheEntry)
{
    start("child", {"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 100}});
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("scheduling restart attempt"); }));
    EXPECT_EQ(manager->stopProcess("child")["status"], "stopping");
    settle();
    EXPECT_EQ(eventsOf("child"), QStringList({"started"}));
    EXPECT_EQ(registered(), 1);
    EXPECT_FALSE(manager->getProcessStatus("child")["running"].toBool());
}

TEST_F(ProcessManagerRaces, resultsOfAnObjectThatWasReplacedAreIgnored)
{
    ASSERT_TRUE(startReady("child", waiting));
    ManagedProcess *old = manager->findChild<ManagedProcess *>();
    manager->killProcess("child");
    start("child", {"--wait"});
    const qsizetype before = events.size();
    // It is still there until the event loop deletes it.
    old->onProcessFinished(5, QProcess::NormalExit);
    old->onProcessError(QProcess::Crashed);
    old->onProcessStarted();
    emit old->stdoutReady("child", "late output");
    manager->flushOutputBuffers();
    EXPECT_EQ(events.size(), before);
    EXPECT_EQ(registered(), 1);
}

TEST_F(ProcessManagerRaces, aManagerThatGoesAsksItsChildrenToEnd)
{
    ASSERT_TRUE(startReady("a", {"--ctrl-c-exit", "9", "--print", "ready", "--wait"}));
    ASSERT_TRUE(startReady("b", {"--ctrl-c-exit", "9", "--print", "ready", "--wait"}));
    const qint64 a = pidOf("a");
    const qint64 b = pidOf("b");
    manager = std::make_unique<ProcessManager>();
    EXPECT_TRUE(test::waitForDeath(a));
    EXPECT_TRUE(test::waitForDeath(b));
    EXPECT_EQ(delivery.sent(), 2);
}

} // namespace
} // namespace ruvo
