#include "windows/process/process_manager_fixture.h"

#include "windows/support/import_redirection.h"

#include <QElapsedTimer>
#include <QRegularExpression>

namespace ruvo {
namespace {

const QStringList ignoring = {"--ignore-ctrl-c", "--print", "ready", "--wait"};
const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};

/// Time as the event loop has it: a machine that stands still for a while does not count.
class Ticks
{
public:
    static constexpr int aSecond = 20;

    Ticks()
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this] { ++m_count; });
    }
    void start() { m_timer.start(50); }
    bool haveStarted() const { return m_timer.isActive(); }
    int count() const { return m_count; }

private:
    QTimer m_timer;
    int m_count = 0;
};

class ProcessManagerStopAll : public ProcessManagerTest
{
protected:
    /// Milliseconds that stopAll took.
    qint64 stopAll(int timeout)
    {
        log.clear();
        QElapsedTimer timer;
        timer.start();
        manager->stopAll(timeout);
        return timer.elapsed();
    }
    /// The lines of the registry itself.
    QStringList lines() const
    {
        return log.lines().filter(QRegularExpression(
            "No processes to stop|Stopping all|Stopping process|stopped gracefully|stop gracefully|still running"));
    }
};

TEST_F(ProcessManagerStopAll, hasNothingToDoWithoutProcesses)
{
    stopAll(10000);
    EXPECT_EQ(log.lines(), QStringList({"INFO [ProcessManager] No processes to stop"}));
}

TEST_F(ProcessManagerStopAll, returnsSoonOnceAllHaveObeyed)
{
    ASSERT_TRUE(startReady("child", obeying));
    Ticks ticks;
    QObject::connect(manager.get(), &ProcessManager::processEvent, [&](const QJsonObject &event) {
        if (event["event"] == "finished")
            ticks.start();
    });
    stopAll(10000);
    ASSERT_TRUE(ticks.haveStarted());
    EXPECT_LT(ticks.count(), Ticks::aSecond);
    EXPECT_EQ(lines(), QStringList({
                           "INFO [ProcessManager] Stopping all 1 managed processes...",
                           R"(INFO [ProcessManager] Stopping process: "child")",
                           "INFO [ProcessManager] All processes stopped gracefully",
                       }));
    EXPECT_TRUE(log.contains(R"(Called for process "child" with timeout 10000)"));
    EXPECT_EQ(eventsOf("child").last(), "finished: 9"); // heard while it waited
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerStopAll, endsChildrenThatIgnoreCtrlCAtTheirDeadline)
{
    ASSERT_TRUE(startReady("a", ignoring));
    ASSERT_TRUE(startReady("b", ignoring));
    const qint64 a = pidOf("a");
    const qint64 b = pidOf("b");
    const qint64 took = stopAll(1000);
    EXPECT_GE(took, 990);
    EXPECT_LT(took, 8000);
    EXPECT_FALSE(test::isAlive(a));
    EXPECT_FALSE(test::isAlive(b));
    EXPECT_EQ(log.linesWith("Forcefully terminating").size(), 2);
    EXPECT_EQ(lines().last(), "INFO [ProcessManager] All processes stopped gracefully");
    EXPECT_EQ(eventsOf("a").last(), "stdout: ready\n");
}

TEST_F(ProcessManagerStopAll, killsWhatStillRunsWhenTheTimeIsUp)
{
    // Without a deadline of their own; so only the wait itself ends, after a second.
    ASSERT_TRUE(startReady("child", ignoring));
    const qint64 pid = pidOf("child");
    const qint64 took = stopAll(0);
    EXPECT_GE(took, 990);
    EXPECT_LT(took, 8000);
    EXPECT_FALSE(test::isAlive(pid));
    EXPECT_EQ(lines(), QStringList({
                           "INFO [ProcessManager] Stopping all 1 managed processes...",
                           R"(INFO [ProcessManager] Stopping process: "child")",
                           R"(WARNING [ProcessManager] Process "child" still running after timeout, )"
                           "force killing...",
                           "WARNING [ProcessManager] Force killed 1 processes that didn't stop gracefully",
                       }));
}

TEST_F(ProcessManagerStopAll, takesChildrenOfEveryKind)
{
    ASSERT_TRUE(startReady("obeying", obeying));
    ASSERT_TRUE(startReady("ignoring", ignoring));
    ASSERT_TRUE(startReady("killed", ignoring));
    manager->killProcess("killed");
    start("crashed", {"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 60000}});
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("scheduling restart attempt"); }));
    const qint64 pid = pidOf("ignoring");

    EXPECT_LT(stopAll(1000), 8000);
    EXPECT_FALSE(test::isAlive(pid));
    EXPECT_EQ(lines().first(), "INFO [ProcessManager] Stopping all 4 managed processes...");
    EXPECT_EQ(log.linesWith("Stopping process:").size(), 4);
    EXPECT_EQ(lines().last(), "INFO [ProcessManager] All processes stopped gracefully");
    EXPECT_EQ(eventsOf("obeying").last(), "finished: 9");
    EXPECT_EQ(eventsOf("crashed"), QStringList({"started"}));
}

TEST_F(ProcessManagerStopAll, returnsSoonWhereEverythingHasEndedAlready)
{
    ASSERT_TRUE(startReady("killed", ignoring));
    manager->killProcess("killed");
    Ticks ticks;
    ticks.start();
    stopAll(10000);
    EXPECT_LT(ticks.count(), Ticks::aSecond);
    EXPECT_EQ(lines().last(), "INFO [ProcessManager] All processes stopped gracefully");
}

TEST_F(ProcessManagerStopAll, tellsTheEndOfAChildThatItsMonitorIsLateToNotice)
{
    const test::ImportRedirection<IMPORT(WaitForMultipleObjects)> wait([&](auto... arguments) {
        const DWORD result = wait.real(arguments...);
        Sleep(700);
        return result;
    });
    ASSERT_TRUE(startReady("child", obeying));
    EXPECT_LT(stopAll(10000), 8000);
    EXPECT_EQ(eventsOf("child").last(), "finished: 9");
    EXPECT_EQ(lines().last(), "INFO [ProcessManager] All processes stopped gracefully");
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerStopAll, servesTheEventLoopWhileItWaits)
{
    ASSERT_TRUE(startReady("child", ignoring));
    int ticks = 0;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] { ++ticks; });
    tick.start(50);
    stopAll(600);
    EXPECT_GE(ticks, 5);
}

TEST_F(ProcessManagerStopAll, isNotHeldUpByAChildThatDoesNotReadItsInput)
{
    ASSERT_TRUE(startReady("child", ignoring));
    manager->writeToProcess("child", QByteArray(1024 * 1024, 'x'));
    EXPECT_LT(stopAll(300), 8000);
    EXPECT_FALSE(log.contains("leaving it behind"));
}

} // namespace
} // namespace ruvo
