#include "windows/process/process_manager_fixture.h"

#include <QElapsedTimer>
#include <QRegularExpression>

namespace ruvo {
namespace {

const QStringList waiting = {"--print", "ready", "--wait"};

class ProcessManagerSweep : public ProcessManagerTest
{
protected:
    ProcessManagerSweep() : ProcessManagerTest(std::make_unique<ProcessManager>()) {}

    /// Waits until the sweep, a second after the manager's construction, is over.
    void waitForSweep()
    {
        test::waitUntil([this] { return m_sinceConstruction.elapsed() > 1300; });
    }

    qint64 sinceConstruction() const { return m_sinceConstruction.elapsed(); }

private:
    QElapsedTimer m_sinceConstruction = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
};

TEST_F(ProcessManagerSweep, removesWhatDoesNotRunAndKeepsTheRest)
{
    ASSERT_EQ(start("running", waiting)["status"], "started");
    ASSERT_EQ(start("killed", waiting)["status"], "started");
    manager->killProcess("killed");
    log.clear();
    waitForSweep();
    EXPECT_EQ(log.lines().filter(QRegularExpression("^(INFO|WARNING)")),
              QStringList({
                  R"(WARNING [ProcessManager] Found stale process entry on startup: "killed" - state: )"
                  "QProcess::NotRunning",
                  R"(INFO [ProcessManager] Removing stale process entry: "killed")",
                  "INFO [ProcessManager] Cleaned up 1 stale process entries",
              }));
    EXPECT_EQ(manager->getProcessStatus("killed")["error"], "Process not found: killed");
    EXPECT_TRUE(manager->getProcessStatus("running")["running"].toBool());
}

TEST_F(ProcessManagerSweep, logsNothingWhereThereIsNothingToRemove)
{
    start("running", waiting);
    log.clear();
    waitForSweep();
    EXPECT_FALSE(log.contains("stale"));
}

TEST_F(ProcessManagerSweep, comesASecondAfterTheConstruction)
{
    ASSERT_EQ(start("killed", waiting)["status"], "started");
    manager->killProcess("killed");
    ASSERT_TRUE(test::waitUntil([this] { return registered() == 0; }));
    EXPECT_GE(sinceConstruction(), 700); // and the event loop has run since the start
}

TEST_F(ProcessManagerSweep, comesOnce)
{
    waitForSweep();
    ASSERT_TRUE(startReady("killed", waiting));
    manager->killProcess("killed");
    EXPECT_FALSE(test::waitUntil([this] { return registered() == 0; }, std::chrono::milliseconds(1500)));
}

TEST_F(ProcessManagerSweep, takesAPendingRestartForAnEnd)
{
    start("crashed", {"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 1500}});
    waitForSweep();
    EXPECT_EQ(registered(), 0);
    EXPECT_FALSE(test::waitUntil([this] { return log.contains("Attempting"); }, std::chrono::milliseconds(1000)));
    EXPECT_EQ(eventsOf("crashed"), QStringList({"started"}));
}

} // namespace
} // namespace ruvo
