#include "windows/process/process_manager_fixture.h"

#include "windows/support/own_resources.h"

namespace ruvo {
namespace {

const QStringList waiting = {"--ignore-ctrl-c", "--print", "ready", "--wait"};
const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};

using ProcessManagerRequests = ProcessManagerTest;

TEST_F(ProcessManagerRequests, startAnswersAfterTheEventOfTheStart)
{
    const QJsonObject result = start("child", waiting);
    EXPECT_EQ(withoutTimestamp(result),
              (QJsonObject{{"status", "started"}, {"message", "Process started successfully"}}));
    ASSERT_EQ(events.size(), 1);
    EXPECT_EQ(withoutTimestamp(events.first()), (QJsonObject{{"process-id", "child"}, {"event", "started"}}));
}

TEST_F(ProcessManagerRequests, startNeedsAProcessIdAndAnExecutable)
{
    EXPECT_EQ(withoutTimestamp(manager->startProcess({})), error("Missing or empty process-id"));
    EXPECT_EQ(withoutTimestamp(manager->startProcess({{"process-id", "child"}})),
              error("Missing or empty executable"));
    EXPECT_EQ(registered(), 0);
    EXPECT_TRUE(events.isEmpty());
}

TEST_F(ProcessManagerRequests, startOfARunningProcessIsRefused)
{
    ASSERT_TRUE(startReady("child", waiting));
    const qint64 pid = pidOf("child");
    EXPECT_EQ(withoutTimestamp(start("child", {"--exit", "0"})), error("Process already exists: child"));
    EXPECT_EQ(pidOf("child"), pid);
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: ready\n"}));
}

TEST_F(ProcessManagerRequests, startTakesProcessIdsCaseSensitively)
{
    EXPECT_EQ(start("child", waiting)["status"], "started");
    EXPECT_EQ(start("Child", waiting)["status"], "started");
    EXPECT_EQ(registered(), 2);
}

TEST_F(ProcessManagerRequests, startThatFailsLeavesNothingInTheRegistry)
{
    start("first", {}, {{"executable", "C:\\no such program.exe"}});
    test::processPending();
    const std::size_t handles = test::countOwnHandles();
    EXPECT_EQ(withoutTimestamp(start("child", {}, {{"executable", "C:\\no such program.exe"}})),
              error("Failed to start process: child"));
    test::processPending();
    EXPECT_EQ(registered(), 0);
    EXPECT_TRUE(events.isEmpty());
    EXPECT_EQ(test::countOwnHandles(), handles);
    EXPECT_EQ(withoutTimestamp(manager->getProcessStatus("child")), error("Process not found: child"));
}

TEST_F(ProcessManagerRequests, startReplacesAnEntryThatDoesNotRun)
{
    ASSERT_TRUE(startReady("child", waiting));
    manager->killProcess("child");
    log.clear();
    EXPECT_EQ(start("child", waiting)["status"], "started");
    EXPECT_EQ(log.linesWith("WARNING"),
              QStringList({R"(WARNING [ProcessManager] Found stale process entry for "child" - state: )"
                           "QProcess::NotRunning - cleaning up before restart"}));
    EXPECT_EQ(registered(), 1);
    EXPECT_TRUE(test::waitUntil([this] { return eventsOf("child").count("stdout: ready\n") == 2; }));
}

TEST_F(ProcessManagerRequests, stopAnswersAtOnceAndTheEndFollows)
{
    ASSERT_TRUE(startReady("child", obeying));
    EXPECT_EQ(withoutTimestamp(manager->stopProcess("child")),
              (QJsonObject{{"status", "stopping"}, {"message", "Process stop requested"}}));
    EXPECT_TRUE(log.contains(R"(Called for process "child" with timeout 10000)"));
    ASSERT_TRUE(waitFor("child", "finished: 9"));
    EXPECT_EQ(withoutTimestamp(events.last()),
              (QJsonObject{{"process-id", "child"}, {"event", "finished"}, {"data", "9"}}));
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerRequests, stopOfAnUnknownProcessIsLogged)
{
    EXPECT_EQ(withoutTimestamp(manager->stopProcess("child")), error("Process not found: child"));
    EXPECT_EQ(log.lines(), QStringList({R"(WARNING [ProcessManager] Process not found: "child")"}));
}

TEST_F(ProcessManagerRequests, killAnswersAndTheEntryStays)
{
    ASSERT_TRUE(startReady("child", waiting));
    const qint64 pid = pidOf("child");
    EXPECT_EQ(withoutTimestamp(manager->killProcess("child")),
              (QJsonObject{{"status", "killed"}, {"message", "Process killed"}}));
    EXPECT_TRUE(test::waitForDeath(pid));
    test::processPending();
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: ready\n"}));
    EXPECT_EQ(registered(), 1);
}

TEST_F(ProcessManagerRequests, restartOnlyStopsEvenWhereRestartsAreAllowed)
{
    ASSERT_TRUE(startReady("child", obeying, {{"auto-restart", true}, {"restart-delay-ms", 0}}));
    EXPECT_EQ(withoutTimestamp(manager->restartProcess("child")),
              (QJsonObject{{"status", "restarting"}, {"message", "Process restart initiated"}}));
    EXPECT_TRUE(log.contains(R"(Called for process "child" with timeout 10000)"));
    ASSERT_TRUE(waitFor("child", "finished: 9"));
    test::processPending();
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: ready\n", "finished: 9"}));
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerRequests, ofUnknownProcessesAreAnsweredWithoutALine)
{
    EXPECT_EQ(withoutTimestamp(manager->killProcess("child")), error("Process not found: child"));
    EXPECT_EQ(withoutTimestamp(manager->restartProcess("child")), error("Process not found: child"));
    EXPECT_EQ(withoutTimestamp(manager->getProcessStatus("child")), error("Process not found: child"));
    EXPECT_EQ(withoutTimestamp(manager->getProcessStatus("")), error("Process not found: "));
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(ProcessManagerRequests, statusTellsOfARunningProcess)
{
    const QDateTime before = QDateTime::currentDateTime();
    start("child", {"--pid", "--print", "ready", "--wait"});
    ASSERT_TRUE(test::waitUntil([this] { return outputOf("child", "stdout").contains("ready"); }));
    const QJsonObject pid = test::factsIn(outputOf("child", "stdout").toUtf8(), "pid").first();
    QJsonObject status = withoutTimestamp(manager->getProcessStatus("child"));
    const QString startTime = status.take("start-time").toString();
    EXPECT_EQ(
        status,
        (QJsonObject{
            {"status", "success"}, {"process-id", "child"}, {"state", 2}, {"pid", pid["pid"]}, {"running", true}}));
    const QDateTime parsed = QDateTime::fromString(startTime, "yyyy-MM-ddTHH:mm:ss");
    ASSERT_TRUE(parsed.isValid()) << startTime.toStdString();
    EXPECT_LE(qAbs(before.secsTo(parsed)), 10);
}

TEST_F(ProcessManagerRequests, statusTellsOfAKilledProcess)
{
    ASSERT_TRUE(startReady("child", waiting));
    const QString startTime = manager->getProcessStatus("child")["start-time"].toString();
    manager->killProcess("child");
    EXPECT_EQ(withoutTimestamp(manager->getProcessStatus("child")), (QJsonObject{{"status", "success"},
                                                                                 {"process-id", "child"},
                                                                                 {"state", 0},
                                                                                 {"pid", -1},
                                                                                 {"start-time", startTime},
                                                                                 {"running", false}}));
}

TEST_F(ProcessManagerRequests, statusTellsOfAProcessBetweenTwoRuns)
{
    start("child", {"--exit", "3"}, {{"auto-restart", true}, {"restart-delay-ms", 60000}});
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("scheduling restart attempt"); }));
    const QJsonObject status = manager->getProcessStatus("child");
    EXPECT_EQ(status["state"], 0);
    EXPECT_EQ(status["pid"], -1);
    EXPECT_EQ(status["running"], false);
}

TEST_F(ProcessManagerRequests, listOfNothingIsEmpty)
{
    EXPECT_EQ(withoutTimestamp(manager->listProcesses()),
              (QJsonObject{{"status", "success"}, {"processes", QJsonArray()}}));
}

TEST_F(ProcessManagerRequests, listTellsOfEveryEntry)
{
    ASSERT_TRUE(startReady("a", waiting));
    ASSERT_TRUE(startReady("b", waiting));
    const QJsonObject a{{"process-id", "a"}, {"state", 2}, {"pid", pidOf("a")}, {"running", true}};
    const QJsonObject b{{"process-id", "b"}, {"state", 0}, {"pid", -1}, {"running", false}};
    manager->killProcess("b");
    const QJsonObject list = withoutTimestamp(manager->listProcesses());
    EXPECT_EQ(list.keys(), QStringList({"processes", "status"}));
    EXPECT_EQ(list["status"], "success");
    const QJsonArray entries = list["processes"].toArray();
    EXPECT_EQ(entries.size(), 2);
    EXPECT_TRUE(entries.contains(a));
    EXPECT_TRUE(entries.contains(b));
}

TEST_F(ProcessManagerRequests, stdinReachesARunningProcessAsItIs)
{
    ASSERT_TRUE(startReady("child", {"--print", "ready", "--echo", "0"}));
    const QByteArray bytes = QByteArray("no line end \xc3\xa9 \0 \r\n", 19);
    EXPECT_TRUE(manager->writeToProcess("child", bytes));
    EXPECT_TRUE(test::waitUntil([&] { return outputOf("child", "stdout") == "ready\n" + QString::fromUtf8(bytes); }))
        << outputOf("child", "stdout").toStdString();
}

TEST_F(ProcessManagerRequests, stdinWithoutBytesSucceedsAndIsNotTheEndOfTheInput)
{
    ASSERT_TRUE(startReady("child", {"--print", "ready", "--read-line", "--wait"}));
    EXPECT_TRUE(manager->writeToProcess("child", ""));
    EXPECT_TRUE(manager->writeToProcess("child", "hello\n"));
    EXPECT_TRUE(test::waitUntil([this] { return outputOf("child", "stdout").contains("hello"); }));
}

TEST_F(ProcessManagerRequests, stdinOfAnUnknownProcessFails)
{
    EXPECT_FALSE(manager->writeToProcess("child", "x"));
}

TEST_F(ProcessManagerRequests, stdinOfAProcessThatHasEndedSucceedsAndWritesNothing)
{
    ASSERT_TRUE(startReady("child", waiting));
    manager->killProcess("child");
    EXPECT_TRUE(manager->writeToProcess("child", "x"));
}

TEST_F(ProcessManagerRequests, stdinOfAProcessThatDoesNotReadBlocksNobody)
{
    ASSERT_TRUE(startReady("deaf", waiting));
    ASSERT_TRUE(startReady("child", {"--print", "ready", "--read-line", "--wait"}));
    for (int i = 0; i < 256; ++i)
        EXPECT_TRUE(manager->writeToProcess("deaf", QByteArray(4096, 'x')));
    EXPECT_TRUE(manager->writeToProcess("child", "hello\n"));
    EXPECT_TRUE(test::waitUntil([this] { return outputOf("child", "stdout").contains("hello"); }));
}

} // namespace
} // namespace ruvo
