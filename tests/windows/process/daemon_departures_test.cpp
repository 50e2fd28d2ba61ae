// Clients that leave without a process of their own.

#include "windows/process/daemon_processes_fixture.h"

namespace ruvo {
namespace {

const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};

TEST_F(DaemonProcesses, ofOthersGoOnWhenAClientLeavesThatOwnedNothing)
{
    auto dropping = connectClient();
    const auto silent = connectClient();
    const auto owner = connectClient();
    ASSERT_TRUE(owner->startReady("a", obeying));
    log.clear();
    dropping->connection.pipe().drop();
    ASSERT_TRUE(waitForLine("stale processes found in session 1"));
    EXPECT_TRUE(log.contains("INFO Remaining connected clients: 2"));
    log.clear();
    daemon.onClientTimedOut(silent->id, 1);
    ASSERT_TRUE(waitForLine("stale processes found in session 1"));
    EXPECT_FALSE(log.contains("Stopping process"));
    EXPECT_TRUE(owner->isRunning("a"));
    EXPECT_EQ(owner->eventsOf("a"), QStringList({"started", "stdout: ready\n"}));
    // It is still its owner's, who hears of its end.
    owner->connection.request("stop", {{"process-id", "a"}});
    EXPECT_TRUE(owner->waitFor("a", "finished: 9"));
}

} // namespace
} // namespace ruvo
