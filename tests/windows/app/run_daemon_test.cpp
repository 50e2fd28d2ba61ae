#include "windows/app/ruvod_process.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/daemon_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

namespace ruvo {
namespace {

using test::DaemonClient;
using test::RuvodProcess;

const QString startPending = "2 type 16 accepts 0 exit 0/0 checkpoint 1 hint 3000";
const QString running = "4 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
const QString stopPending = "3 type 16 accepts 5 exit 0/0 checkpoint 1 hint 30000";
const QString stopped = "1 type 16 accepts 5 exit 0/0 checkpoint 0 hint 0";
const QString failed = "1 type 16 accepts 5 exit 1/0 checkpoint 0 hint 0";

/// What a daemon logs from its start to its end, parts of the daemon left out.
const QStringList wholeLife = {
    "INFO: Starting ruvod daemon...",
    "INFO: Daemon started successfully",
    "INFO: Daemon ready for connections",
    "INFO: Service stop requested, quitting event loop...",
    "INFO: Event loop exited, stopping daemon...",
    "INFO: Stopping ruvod daemon...",
    "INFO: Daemon stopped",
    "INFO: Daemon cleanup complete, reporting service stopped",
};

/// The lines of `log` that tell of the life of a daemon, or that are worse than information.
QStringList lifeLines(const QStringList &log)
{
    QStringList lines;
    for (const QString &line : log) {
        if (wholeLife.contains(line) || line.startsWith("WARNING") || line.startsWith("CRITICAL"))
            lines.append(line);
    }
    return lines;
}

void stopAndExpectACleanEnd(RuvodProcess &process)
{
    EXPECT_EQ(process.control(SERVICE_CONTROL_STOP), DWORD{NO_ERROR});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList({startPending, running, stopPending, stopped}));
    EXPECT_EQ(process.calls().last(), "WSACleanup()");
    EXPECT_EQ(process.output(), "");
}

TEST(RunDaemon, logsItsLifeInOrderFromBeforeTheApplicationOn)
{
    RuvodProcess process({"log-early"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING)) << process.errors().toStdString();
    stopAndExpectACleanEnd(process);
    EXPECT_EQ(lifeLines(process.log()), wholeLife);
    EXPECT_EQ(process.log().value(0), "INFO: logged while the application is made");
    EXPECT_EQ(process.notes("the daemon is gone").size(), 1);
    // Every line of its standard error is one of the log, and none is for developers.
    EXPECT_EQ(process.log().size(), process.errors().count('\n'));
    EXPECT_TRUE(process.log().filter("DEBUG").isEmpty());
}

TEST(RunDaemon, takesControlsThoughItsLogBlocks)
{
    RuvodProcess process({"sessions=1", "first-thread-log-blocks"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    EXPECT_EQ(process.control(128), DWORD{NO_ERROR});
    stopAndExpectACleanEnd(process);
    EXPECT_EQ(lifeLines(process.log()), wholeLife);
}

TEST(RunDaemon, stopsOnTheSystemsShutdown)
{
    RuvodProcess process({"sessions=1"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    EXPECT_EQ(process.control(SERVICE_CONTROL_SHUTDOWN), DWORD{NO_ERROR});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList({startPending, running, stopPending, stopped}));
    EXPECT_EQ(lifeLines(process.log()), wholeLife);
}

TEST(RunDaemon, stopsWhenItIsAskedInTheInstantOfItsRunningReport)
{
    RuvodProcess process({"sessions=1", "stop-at-running"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList({startPending, running, stopPending, stopped}));
    EXPECT_EQ(lifeLines(process.log()), wholeLife);
}

TEST(RunDaemon, tellsEveryClientToCloseOnTheInstallersControl)
{
    RuvodProcess process({"sessions=1,2"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    DaemonClient first(1);
    DaemonClient second(1);
    DaemonClient other(2);
    for (DaemonClient *client : {&first, &second, &other})
        ASSERT_FALSE(client->waitForEvent("connected").isEmpty());

    EXPECT_EQ(process.control(128), DWORD{NO_ERROR});
    const QJsonObject shutdown = {{"event", "shutdown"}, {"reason", "installer-request"}};
    for (DaemonClient *client : {&first, &second, &other}) {
        EXPECT_EQ(client->waitForEvent("shutdown"), shutdown);
        EXPECT_EQ(client->request("heartbeat")["status"], "success") << "the daemon has to go on";
    }
    const QString received = "INFO: Received SERVICE_CONTROL_SHUTDOWN_CLIENTS from installer";
    const QString told = "INFO: Broadcasting shutdown request to all connected clients (triggered by installer)";
    EXPECT_EQ(process.log().count(received), 1);
    EXPECT_EQ(process.log().count(told), 1);
    EXPECT_LT(process.log().indexOf(received), process.log().indexOf(told));
    // A note for standard error and one for the file.
    EXPECT_EQ(process.notes("broadcast "), QStringList(2, "on the daemon's thread"));
    EXPECT_EQ(process.reports(), QStringList({startPending, running}));
    stopAndExpectACleanEnd(process);
}

TEST(RunDaemon, acceptsOtherCustomControlsAndDoesNothing)
{
    RuvodProcess process({"sessions=1"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    DaemonClient client(1);
    ASSERT_FALSE(client.waitForEvent("connected").isEmpty());
    const QStringList before = process.log();
    for (const DWORD control : {129u, 200u, 255u})
        EXPECT_EQ(process.control(control), DWORD{NO_ERROR}) << control;
    EXPECT_EQ(process.control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
    EXPECT_EQ(process.control(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
    EXPECT_EQ(client.request("heartbeat")["status"], "success");
    EXPECT_EQ(client.pipe().messages().size(), 2) << "the greeting and the answer";
    EXPECT_EQ(process.log(), before);
    stopAndExpectACleanEnd(process);
}

TEST(RunDaemon, quitsForANewerClient)
{
    const QTemporaryDir folder;
    const QString logPath = folder.filePath("not there yet/client.log");
    RuvodProcess process({"sessions=1"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    DaemonClient client(1);
    EXPECT_EQ(client.request("client-hello", {{"log-path", logPath}, {"version", "2.0.2"}}),
              QJsonObject({{"status", "restarting"},
                           {"reason", "Client version is higher than daemon version"},
                           {"request-id", 1}}));
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList({startPending, running, stopped}));

    QStringList expected = wholeLife;
    expected.removeOne("INFO: Service stop requested, quitting event loop...");
    EXPECT_EQ(lifeLines(process.log()), expected);
    const QStringList log = process.log();
    EXPECT_LT(log.indexOf("INFO: Initiating daemon restart due to version mismatch"),
              log.indexOf("INFO: Event loop exited, stopping daemon..."));
    QFile file(logPath);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().endsWith("INFO: Daemon cleanup complete, reporting service stopped\r\n"));
}

TEST(RunDaemon, reportsNothingMoreIfTheDaemonCannotStart)
{
    RuvodProcess process({"start-fails"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList(startPending));
    EXPECT_EQ(lifeLines(process.log()),
              QStringList({"INFO: Starting ruvod daemon...", "CRITICAL: Failed to start communication server",
                           "CRITICAL: Failed to start daemon"}));
    EXPECT_EQ(process.notes("the daemon is gone").size(), 1);
}

TEST(RunDaemon, reportsAFailureIfTheDaemonRaises)
{
    RuvodProcess process({"start-raises"});
    EXPECT_EQ(process.waitForEnd(), 0);
    EXPECT_EQ(process.reports(), QStringList({startPending, failed}));
    EXPECT_EQ(process.notes("the daemon is gone").size(), 1);
}

TEST(RunDaemon, letsNoLateControlReachADaemonThatIsDestroyed)
{
    RuvodProcess process({"sessions=1", "late-controls"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    stopAndExpectACleanEnd(process);
    EXPECT_EQ(process.notes("late 128: "), QStringList("120"));
    EXPECT_EQ(process.notes("late stop: "), QStringList("0"));
    EXPECT_TRUE(process.log().filter("SERVICE_CONTROL_SHUTDOWN_CLIENTS").isEmpty());
    EXPECT_EQ(lifeLines(process.log()), wholeLife);
}

TEST(RunDaemon, isGoneBeforeTheFirstThreadGoesOn)
{
    RuvodProcess process({"sessions=1", "returns-when-stopped", "slow-destruction"});
    ASSERT_TRUE(process.waitForState(SERVICE_RUNNING));
    stopAndExpectACleanEnd(process);
    const QStringList notes = process.notes("the ");
    EXPECT_EQ(notes, QStringList({"daemon is gone", "entry point has returned"}));
}

TEST(RunDaemon, printsItsVersionAndEnds)
{
    for (const char *option : {"--version", "-v"}) {
        RuvodProcess process({}, {option});
        EXPECT_EQ(process.waitForEnd(), 0);
        EXPECT_EQ(process.output(), "ruvod 2.0.1\n");
        EXPECT_EQ(process.errors(), "");
        EXPECT_EQ(process.reports(), QStringList({startPending, stopped}));
    }
}

TEST(RunDaemon, printsItsHelpAndEnds)
{
    for (const char *option : {"--help", "-h", "--help-all"}) {
        RuvodProcess process({}, {option});
        EXPECT_EQ(process.waitForEnd(), 0);
        EXPECT_TRUE(process.output().startsWith("Usage: ")) << process.output().toStdString();
        EXPECT_TRUE(process.output().contains("\nRuvo Proxy Client Service\n"));
        EXPECT_TRUE(process.output().contains("--version"));
        EXPECT_EQ(process.errors(), "");
        EXPECT_EQ(process.reports(), QStringList({startPending, stopped}));
    }
}

TEST(RunDaemon, refusesAnOptionThatItDoesNotKnow)
{
    RuvodProcess process({}, {"--bogus"});
    EXPECT_EQ(process.waitForEnd(), 1);
    EXPECT_EQ(process.output(), "");
    EXPECT_EQ(process.errors(), "Unknown option 'bogus'.\n");
    EXPECT_EQ(process.reports(), QStringList({startPending, failed}));
}

} // namespace
} // namespace ruvo
