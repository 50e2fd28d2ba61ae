// Between the request to quit and the moment when the event loop comes to it, requests of clients may wait in the
// pipe: each start takes its time, and none would be of use.

#include "common/quit.h"
#include "daemon/ruvo_daemon.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/support/child_process.h"
#include "windows/support/daemon_client.h"
#include "windows/support/fake_sessions.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QRegularExpression>

namespace ruvo {
namespace {

// Quitting is asked for once in the life of an application.
TEST_IN_OWN_PROCESS(DaemonQuit, refusesTheStartsThatAreHandledBeforeIt)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    const QCoreApplication application(argc, argv);
    const test::FakeSessions sessions{{.id = 1}};
    const test::LogCapture log;
    RuvoDaemon daemon;
    ASSERT_TRUE(daemon.start());
    test::DaemonClient client(1);
    ASSERT_FALSE(client.waitForEvent("connected").isEmpty());
    ASSERT_EQ(client.request("heartbeat")["status"], "success");
    const QRegularExpression pattern("Client \"([0-9a-f]+)\" action: \"heartbeat\"");
    const QString id = pattern.match(log.lines().join('\n')).captured(1);

    requestQuit();
    for (const char *action : {"start", "start-tun"}) {
        QJsonObject request = test::childSpec("late", {"--wait"});
        request["action"] = action;
        request["request-id"] = action;
        daemon.handleClientMessage(id, request);
        const QJsonObject expected{{"status", "error"}, {"error", "Daemon is stopping"}, {"request-id", action}};
        EXPECT_TRUE(test::waitUntil([&] { return client.pipe().messages().contains(expected); })) << action;
    }
    EXPECT_FALSE(log.contains("will be owned"));
    daemon.stop();
}

} // namespace
} // namespace ruvo
