// The daemon with real pipes and real children: who owns them, who hears of them, and what becomes of them.

#include "windows/process/daemon_processes_fixture.h"

#include "windows/support/import_redirection.h"

#include <QElapsedTimer>
#include <QTimer>

namespace ruvo {
namespace {

const QStringList waiting = {"--ignore-ctrl-c", "--print", "ready", "--wait"};
const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};

TEST_F(DaemonProcesses, tellTheirStartBeforeItIsAnswered)
{
    const auto client = connectClient();
    const QJsonObject answer = client->start("child", waiting);
    EXPECT_EQ(answer.keys(), QStringList({"message", "request-id", "status", "timestamp"}));
    EXPECT_EQ(answer["status"], "started");
    const QList<QJsonObject> messages = client->connection.pipe().messages();
    const qsizetype position = messages.indexOf(answer);
    ASSERT_GT(position, 0);
    EXPECT_EQ(messages[position - 1]["event"], "started");
    EXPECT_EQ(messages[position - 1].keys(), QStringList({"event", "process-id", "timestamp"}));
    EXPECT_TRUE(log.contains(QString(R"(Process "child" will be owned by client "%1")").arg(client->id)));
    EXPECT_TRUE(log.contains(QString(R"(Sending process event to owner client "%1" for process "child" event: )"
                                     R"("started")")
                                 .arg(client->id)));
}

TEST_F(DaemonProcesses, tellTheirEventsToTheirOwnerOnly)
{
    const auto first = connectClient();
    const auto second = connectClient();
    ASSERT_TRUE(first->startReady("a", waiting));
    ASSERT_TRUE(second->startReady("b", obeying));
    second->connection.request("stop", {{"process-id", "b"}});
    ASSERT_TRUE(second->waitFor("b", "finished: 9"));
    EXPECT_EQ(first->eventsOf("a"), QStringList({"started", "stdout: ready\n"}));
    EXPECT_EQ(first->eventsOf("b"), QStringList());
    EXPECT_EQ(second->eventsOf("a"), QStringList());
    EXPECT_EQ(second->eventsOf("b"), QStringList({"started", "stdout: ready\n", "finished: 9"}));
}

TEST_F(DaemonProcesses, areOwnedUntilTheirEndHasBeenTold)
{
    const auto client = connectClient();
    client->start("child", {"--exit", "7"});
    ASSERT_TRUE(client->waitFor("child", "finished: 7"));
    const QStringList lines = log.lines().filter(QRegularExpression("event: \"finished\"|removing ownership"));
    EXPECT_EQ(lines, QStringList({
                         QString(R"(DEBUG Sending process event to owner client "%1" for process "child" event: )"
                                 R"("finished")")
                             .arg(client->id),
                         QString(R"(DEBUG Process "child" finished (exit code 7 ), removing ownership tracking )"
                                 R"((was owned by client "%1" ))")
                             .arg(client->id),
                     }));
    emit processManager()->processEvent({{"event", "stdout"}, {"process-id", "child"}, {"data", "late"}});
    EXPECT_EQ(log.lines().last(), R"(DEBUG Process event for unowned process "child" - not sending to any client)");
}

TEST_F(DaemonProcesses, areOwnedNoMoreAfterAnEndWhoseCodeIsNoNumber)
{
    const auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", waiting));
    emit processManager()->processEvent({{"event", "finished"}, {"process-id", "child"}, {"data", "no number"}});
    EXPECT_TRUE(log.contains(R"(Process "child" finished (exit code 0 ), removing ownership tracking)"));
    EXPECT_TRUE(client->waitFor("child", "finished: no number"));
    emit processManager()->processEvent({{"event", "stdout"}, {"process-id", "child"}, {"data", "late"}});
    EXPECT_TRUE(log.contains("Process event for unowned process"));
}

TEST_F(DaemonProcesses, areOwnedNoMoreOnceTheSlotIsTold)
{
    const auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", waiting));
    daemon.onProcessFinished("child", 5, QProcess::NormalExit);
    EXPECT_EQ(log.lines().last(), QString(R"(DEBUG Process "child" finished (exit code 5 ), removing ownership )"
                                          R"(tracking (was owned by client "%1" ))")
                                      .arg(client->id));
    log.clear();
    daemon.onProcessFinished("child", 5, QProcess::NormalExit);
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(DaemonProcesses, keepTheirOwnerOnOtherEvents)
{
    const auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", waiting));
    emit processManager()->processEvent({{"event", "Finished"}, {"process-id", "child"}, {"data", "1"}});
    EXPECT_FALSE(log.contains("removing ownership"));
}

TEST_F(DaemonProcesses, loseTheirOwnerToARepeatedStartThatFails)
{
    const auto owner = connectClient();
    const auto other = connectClient();
    ASSERT_TRUE(owner->startReady("child", waiting));
    EXPECT_EQ(other->start("child", waiting)["error"], "Process already exists: child");
    EXPECT_TRUE(log.contains(R"(Process "child" failed to start, removed ownership)"));
    emit processManager()->processEvent({{"event", "stdout"}, {"process-id", "child"}, {"data", "x"}});
    EXPECT_TRUE(log.contains("Process event for unowned process"));
    EXPECT_TRUE(other->isRunning("child"));
    // Nor does it end with either of them.
    owner->connection.pipe().drop();
    ASSERT_TRUE(waitForLine("stale processes found in session 1"));
    EXPECT_FALSE(log.contains("Stopping process"));
    EXPECT_TRUE(other->isRunning("child"));
}

TEST_F(DaemonProcesses, ofAFailedStartBelongToNobody)
{
    const auto client = connectClient();
    const QJsonObject spec = test::childSpec("child", {}, {{"executable", "C:\\no such program.exe"}});
    const QJsonObject answer = client->connection.request("start", spec);
    EXPECT_EQ(answer["error"], "Failed to start process: child");
    EXPECT_EQ(client->eventsOf("child"), QStringList());
    EXPECT_TRUE(log.contains(R"(Process "child" failed to start, removed ownership)"));
}

TEST_F(DaemonProcesses, areStoppedWhenTheirOwnerLeaves)
{
    auto leaving = connectClient();
    const auto staying = connectClient();
    ASSERT_TRUE(leaving->startReady("a", obeying));
    ASSERT_TRUE(leaving->startReady("b", obeying));
    ASSERT_TRUE(staying->startReady("c", obeying));
    const qint64 a = leaving->pidOf("a");
    const qint64 b = leaving->pidOf("b");
    log.clear();
    leaving->connection.pipe().drop();
    EXPECT_TRUE(test::waitForDeath(a));
    EXPECT_TRUE(test::waitForDeath(b));
    QStringList stops = log.linesWith("INFO Stopping process");
    stops.sort();
    const QString stop = R"(INFO Stopping process "%1" (owned by disconnected client "%2" ))";
    EXPECT_EQ(stops, QStringList({stop.arg("a", leaving->id), stop.arg("b", leaving->id)}));
    // Whose end belongs to nobody any more.
    EXPECT_TRUE(waitForLine(R"(Process event for unowned process "a")"));
    EXPECT_TRUE(waitForLine(R"(Process event for unowned process "b")"));
    EXPECT_TRUE(staying->isRunning("c"));
    EXPECT_EQ(staying->eventsOf("c"), QStringList({"started", "stdout: ready\n"}));
    EXPECT_TRUE(staying->eventsOf("a").isEmpty());
}

TEST_F(DaemonProcesses, areStoppedWhenTheirOwnerTimesOut)
{
    const auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", obeying));
    const qint64 pid = client->pidOf("child");
    log.clear();
    daemon.onClientTimedOut(client->id, 1);
    EXPECT_EQ(
        log.linesWith("INFO Stopping process"),
        QStringList({QString(R"(INFO Stopping process "child" (owned by timed-out client "%1" ))").arg(client->id)}));
    EXPECT_FALSE(log.contains("Remaining connected clients"));
    EXPECT_TRUE(test::waitForDeath(pid));
}

TEST_F(DaemonProcesses, areStoppedBeforeTheSessionIsSwept)
{
    auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", obeying));
    log.clear();
    client->connection.pipe().drop();
    ASSERT_TRUE(waitForLine("stale processes found in session 1"));
    const QStringList lines =
        log.lines().filter(QRegularExpression("Client disconnected|Remaining|INFO Stopping process|Checking"));
    ASSERT_EQ(lines.size(), 4);
    EXPECT_TRUE(lines[0].startsWith("INFO Client disconnected:"));
    EXPECT_EQ(lines[1], "INFO Remaining connected clients: 0");
    EXPECT_TRUE(lines[2].startsWith(R"(INFO Stopping process "child")"));
    EXPECT_EQ(lines[3], "INFO Checking for stale processes in session 1");
}

TEST_F(DaemonProcesses, thatWereKilledAreStillTheirOwnersUntilItLeaves)
{
    auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", waiting));
    EXPECT_EQ(client->connection.request("kill", {{"process-id", "child"}})["status"], "killed");
    log.clear();
    client->connection.pipe().drop();
    EXPECT_TRUE(waitForLine(R"(INFO Stopping process "child" (owned by disconnected client)"));
    EXPECT_TRUE(log.contains(R"(Process "child" already not running (no handle))"));
}

TEST_F(DaemonProcesses, mayBeStartedAndKilledInOneWrite)
{
    const auto client = connectClient();
    QJsonObject start = test::childSpec("child", waiting);
    start["request-id"] = "s";
    client->connection.pipe().write(frame(start)
                                    + frame({{"action", "kill"}, {"process-id", "child"}, {"request-id", "k"}}));
    ASSERT_TRUE(test::waitUntil([&] { return client->connection.pipe().messages().last()["request-id"] == "k"; }));
    EXPECT_EQ(client->connection.pipe().messages().last()["status"], "killed");
    EXPECT_FALSE(client->isRunning("child"));
    EXPECT_EQ(client->eventsOf("child"), QStringList({"started"}));
}

TEST_F(DaemonProcesses, mayCrashAndBeStartedAgainInOneWrite)
{
    const auto client = connectClient();
    ASSERT_TRUE(client->startReady("child", {"--print", "ready", "--read-line", "--exit", "3"}));
    ASSERT_TRUE(client->startReady("other", obeying));
    const KernelHandle crashing(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(client->pidOf("child"))));
    // Between the crash and the new start: the stop of another child, which takes until the crash waits to be told.
    const test::ImportRedirection<IMPORT(AttachConsole)> attach([&](DWORD pid) {
        EXPECT_EQ(WaitForSingleObject(crashing.get(), 15000), WAIT_OBJECT_0);
        for (int i = 0; i < 1500 && !log.contains("Queued handleProcessExit"); ++i)
            Sleep(10);
        return attach.real(pid);
    });
    QJsonObject start = test::childSpec("child", {"--print", "new", "--sleep", "1500", "--exit", "5"});
    start["request-id"] = "again";
    client->connection.pipe().write(frame({{"action", "stdin"}, {"process-id", "child"}, {"data", "\n"}})
                                    + frame({{"action", "stop"}, {"process-id", "other"}}) + frame(start));
    EXPECT_TRUE(client->waitFor("child", "finished: 5"));
    // Of the crash nothing is heard: its entry was replaced.
    EXPECT_EQ(client->eventsOf("child"),
              QStringList({"started", "stdout: ready\n", "started", "stdout: new\n", "finished: 5"}));
    EXPECT_TRUE(log.contains(R"(Found stale process entry for "child" - state: QProcess::Running)"));
    EXPECT_TRUE(client->waitFor("other", "finished: 9"));
}

TEST_F(DaemonProcesses, areServedWhileTheDaemonStopsButNotStarted)
{
    const auto client = connectClient();
    // It obeys a second late: so long the daemon waits for it.
    ASSERT_TRUE(
        client->startReady("child", {"--ctrl-c-exit", "9", "--ctrl-c-delay", "1500", "--print", "ready", "--wait"}));
    QJsonObject startAnswer;
    QJsonObject listAnswer;
    bool newcomerWasDropped = false;
    QTimer::singleShot(200, [&] {
        startAnswer = client->start("late", waiting);
        listAnswer = client->connection.request("list");
        test::PipeClient newcomer(R"(\\.\pipe\ruvod-1)");
        newcomerWasDropped = test::waitUntil([&] { return newcomer.isGone(); }) && newcomer.messages().isEmpty();
    });
    stopped = true;
    log.clear();
    daemon.stop();
    EXPECT_EQ(startAnswer,
              (QJsonObject{
                  {"status", "error"}, {"error", "Daemon is stopping"}, {"request-id", startAnswer["request-id"]}}));
    EXPECT_EQ(listAnswer["status"], "success");
    EXPECT_EQ(listAnswer["processes"].toArray().size(), 1);
    EXPECT_TRUE(newcomerWasDropped);
    EXPECT_EQ(client->eventsOf("late"), QStringList());
    EXPECT_EQ(log.linesWith("will be owned"), QStringList());
    EXPECT_EQ(log.lines().filter(QRegularExpression("Stopping ruvod|Stopping all|stopped gracefully|Daemon stopped")),
              QStringList({
                  "INFO Stopping ruvod daemon...",
                  "INFO [ProcessManager] Stopping all 1 managed processes...",
                  "INFO [ProcessManager] All processes stopped gracefully",
                  "INFO Daemon stopped",
              }));
    EXPECT_TRUE(log.contains(R"(Called for process "child" with timeout 10000)"));
    // The end was sent while the pipe was still there.
    EXPECT_TRUE(log.contains(R"(for process "child" event: "finished")"));
}

TEST_F(DaemonProcesses, areAllEndedByAFloodOfStartsWhileTheDaemonStops)
{
    const auto client = connectClient();
    ASSERT_TRUE(
        client->startReady("child", {"--ctrl-c-exit", "9", "--ctrl-c-delay", "2000", "--print", "ready", "--wait"}));
    int sent = 0;
    QTimer flood;
    QObject::connect(&flood, &QTimer::timeout,
                     [&] { client->connection.send(test::childSpec(QString::number(++sent), waiting)); });
    flood.start(5);
    stopped = true;
    QElapsedTimer timer;
    timer.start();
    daemon.stop();
    EXPECT_LT(timer.elapsed(), 9000); // before the deadline of those that it stops
    flood.stop();
    EXPECT_GT(sent, 5);
    EXPECT_EQ(processManager()->listProcesses()["processes"].toArray().size(), 0);
}

} // namespace
} // namespace ruvo
