#include "daemon/ruvo_daemon.h"

#include "ipc/client_connection.h"
#include "ipc/session_server.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/daemon_client.h"
#include "windows/support/fake_sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QRegularExpression>

#include <chrono>
#include <memory>
#include <optional>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::DaemonClient;
using test::FakeSessions;
using test::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

/// A daemon with real pipes for two sessions, on this thread.
class Daemon : public testing::Test
{
protected:
    Daemon() { start(); }

    void start()
    {
        m_daemon = std::make_unique<RuvoDaemon>();
        EXPECT_TRUE(m_daemon->start());
    }

    /// A client that has been greeted.
    std::unique_ptr<DaemonClient> connectTo(quint32 sessionId)
    {
        auto client = std::make_unique<DaemonClient>(sessionId);
        EXPECT_FALSE(client->waitForEvent("connected").isEmpty());
        return client;
    }

    /// Waits for a line that matches the whole of `pattern`.
    bool waitForLine(const QString &pattern)
    {
        return waitUntil([&] { return lineMatching(pattern) >= 0; });
    }
    qsizetype lineMatching(const QString &pattern) const
    {
        return m_log.lines().indexOf(QRegularExpression(QRegularExpression::anchoredPattern(pattern)));
    }
    /// The lines about clients that have left, and what is done then.
    QStringList departureLines() const
    {
        return m_log.lines().filter(QRegularExpression("Client|clients|stale processes (found )?in"));
    }

    FakeSessions m_sessions{{.id = 1}, {.id = 2}};
    test::LogCapture m_log;
    std::unique_ptr<RuvoDaemon> m_daemon;
};

TEST_F(Daemon, logsItsStart)
{
    const QStringList lines = m_log.lines();
    const auto position = [&](const QString &line) { return lines.indexOf(line); };
    EXPECT_EQ(position("INFO Starting ruvod daemon..."), 0);
    EXPECT_GT(position("INFO Daemon started successfully"),
              position("DEBUG Session polling started (every 3 seconds)"));
    EXPECT_GT(lineMatching("DEBUG Privilege level: [01]"), position("INFO Daemon started successfully"));
}

TEST_F(Daemon, greetsEveryClientWithItsVersionAndPrivilegeLevel)
{
    std::optional<DWORD> elevation;
    const test::ImportRedirection<IMPORT(GetTokenInformation)> token(
        [&](HANDLE handle, TOKEN_INFORMATION_CLASS what, LPVOID value, DWORD size, PDWORD returned) {
            if (what != TokenElevation) // Qt asks for the user of a pipe
                return token.real(handle, what, value, size, returned);
            *static_cast<DWORD *>(value) = elevation.value_or(0);
            return elevation ? TRUE : FALSE;
        });
    for (const auto &[answer, level] :
         {std::pair(std::optional(DWORD{1}), 1), {std::optional(DWORD{0}), 0}, {std::optional<DWORD>(), 0}}) {
        elevation = answer;
        DaemonClient client(1);
        EXPECT_EQ(client.waitForEvent("connected"),
                  QJsonObject({{"event", "connected"}, {"daemon-version", "2.0.1"}, {"privilege-level", level}}));
        EXPECT_EQ(client.pipe().messages().size(), 1);
    }
}

TEST_F(Daemon, answersOnThePipeOfEverySession)
{
    for (const quint32 session : {1u, 2u}) {
        const auto client = connectTo(session);
        EXPECT_EQ(client->request("heartbeat"), QJsonObject({{"status", "success"}, {"request-id", 1}}));
    }
}

TEST_F(Daemon, cleansUpAfterAClientThatLeaves)
{
    auto first = connectTo(1);
    auto second = connectTo(2);
    m_log.clear();

    first->pipe().drop();
    ASSERT_TRUE(waitForLine("INFO Checking for stale processes in session 1"));
    second->pipe().drop();
    ASSERT_TRUE(waitForLine("DEBUG No stale processes found in session 2"));

    const QStringList lines = departureLines();
    ASSERT_EQ(lines.size(), 8) << lines.join(u'\n').toStdString();
    EXPECT_TRUE(
        QRegularExpression("^INFO Client disconnected: \"[0-9a-f]{1,16}\" session: 1$").match(lines[0]).hasMatch());
    EXPECT_EQ(lines[1], "INFO Remaining connected clients: 1");
    EXPECT_EQ(lines[2], "INFO Checking for stale processes in session 1");
    EXPECT_EQ(lines[3], "DEBUG No stale processes found in session 1");
    EXPECT_TRUE(
        QRegularExpression("^INFO Client disconnected: \"[0-9a-f]{1,16}\" session: 2$").match(lines[4]).hasMatch());
    EXPECT_EQ(lines[5], "INFO Remaining connected clients: 0");
    EXPECT_EQ(lines[6], "INFO Checking for stale processes in session 2");
}

TEST_F(Daemon, sweepsASessionOnceForAllWhoLeaveInOneTurn)
{
    m_daemon->onClientDisconnected("a", 1);
    m_daemon->onClientTimedOut("b", 1);
    m_daemon->onClientDisconnected("c", 2);
    m_daemon->onClientDisconnected("d", 1);
    EXPECT_THAT(m_log.linesWith("Checking for stale"), IsEmpty()) << "only after the departures";
    test::processPending();
    EXPECT_THAT(m_log.linesWith("Checking for stale"),
                testing::UnorderedElementsAre("INFO Checking for stale processes in session 1",
                                              "INFO Checking for stale processes in session 2"));

    m_log.clear();
    m_daemon->onClientDisconnected("e", 1);
    test::processPending();
    EXPECT_THAT(m_log.linesWith("Checking for stale"), ElementsAre("INFO Checking for stale processes in session 1"));
}

TEST_F(Daemon, cannotSweepForAClientOfAnUnknownSession)
{
    m_log.clear();
    m_daemon->onClientDisconnected("a", 0);
    m_daemon->onClientTimedOut("b", 0);
    test::processPending();
    EXPECT_THAT(m_log.lines(),
                ElementsAre("INFO Client disconnected: \"a\" session: 0", "INFO Remaining connected clients: 0",
                            "INFO Client \"a\" has sessionId=0, cannot check for stale processes",
                            "INFO Client \"b\" has sessionId=0, cannot check for stale processes"));
}

TEST_F(Daemon, dropsAClientThatGivesNoSignOfLife)
{
    QElapsedTimer sinceLastHeartbeat;
    const auto silent = connectTo(1);
    const auto alive = connectTo(2);
    EXPECT_EQ(silent->request("heartbeat")["status"], "success");
    sinceLastHeartbeat.start();
    m_log.clear();

    QElapsedTimer sinceRequest;
    sinceRequest.start();
    ASSERT_TRUE(waitUntil(
        [&] {
            if (sinceRequest.hasExpired(1000)) {
                alive->request("heartbeat");
                silent->send({{"action", "status"}}); // a request, but no heartbeat
                sinceRequest.restart();
            }
            return silent->pipe().isGone();
        },
        20s));
    EXPECT_GT(sinceLastHeartbeat.elapsed(), 10000);
    EXPECT_LT(sinceLastHeartbeat.elapsed(), 16500) << "15 s, and what a busy machine adds";
    ASSERT_TRUE(waitForLine("DEBUG No stale processes found in session 1"));

    const QStringList lines = departureLines().filter(QRegularExpression("^(?!DEBUG (Client|Sending))"));
    ASSERT_EQ(lines.size(), 3) << lines.join(u'\n').toStdString();
    EXPECT_TRUE(QRegularExpression("^WARNING Client \"[0-9a-f]{1,16}\" timed out \\(no heartbeat for 10000 ms\\)$")
                    .match(lines[0])
                    .hasMatch());
    EXPECT_EQ(lines[1], "INFO Checking for stale processes in session 1");
    EXPECT_TRUE(alive->isConnected());
    EXPECT_EQ(alive->request("heartbeat")["status"], "success");
}

TEST_F(Daemon, tellsEveryClientOfTheInstallersShutdown)
{
    const auto first = connectTo(1);
    const auto second = connectTo(2);
    m_daemon->broadcastClientShutdown();
    const QJsonObject shutdown = {{"event", "shutdown"}, {"reason", "installer-request"}};
    EXPECT_EQ(first->waitForEvent("shutdown"), shutdown);
    EXPECT_EQ(second->waitForEvent("shutdown"), shutdown);
    EXPECT_TRUE(first->isConnected());
}

TEST_F(Daemon, leavesNothingBehindWhenItStops)
{
    const auto first = connectTo(1);
    const auto second = connectTo(2);
    m_log.clear();

    m_daemon->stop();
    // Without a turn of the event loop: none comes before "stopped" is reported.
    EXPECT_FALSE(test::daemonPipeExists(1));
    EXPECT_FALSE(test::daemonPipeExists(2));
    EXPECT_THAT(m_daemon->findChildren<SessionServer *>(), IsEmpty());
    EXPECT_THAT(m_daemon->findChildren<ClientConnection *>(), IsEmpty());
    EXPECT_EQ(m_log.lines().first(), "INFO Stopping ruvod daemon...");
    EXPECT_EQ(m_log.lines().last(), "INFO Daemon stopped");

    EXPECT_TRUE(waitUntil([&] { return first->pipe().isGone() && second->pipe().isGone(); }));
    EXPECT_FALSE(m_log.contains("Client disconnected")) << "a stop is no departure";
    EXPECT_FALSE(test::daemonPipeExists(1));
}

TEST_F(Daemon, stopsAtOnceWithAClientThatDoesNotRead)
{
    // Its event loop is this thread's, which runs the daemon only.
    const auto client = connectTo(1);
    client->pipe().socket().setReadBufferSize(1);
    const QString much(1024 * 1024, 'x');
    for (int i = 0; i < 8; ++i)
        client->send({{"action", much}});
    ASSERT_TRUE(client->pipe().waitUntilSent());
    ASSERT_TRUE(waitUntil([&] { return m_log.linesWith("Sending response").size() == 8; }));

    QElapsedTimer timer;
    timer.start();
    m_daemon->stop();
    EXPECT_LT(timer.elapsed(), 3000);
    EXPECT_FALSE(test::daemonPipeExists(1));
    EXPECT_THAT(m_daemon->findChildren<ClientConnection *>(), IsEmpty());
}

TEST_F(Daemon, canBeStartedDirectlyAfterItStopped)
{
    for (int i = 0; i < 3; ++i) {
        m_daemon->stop();
        m_daemon.reset();
        start();
        const auto client = connectTo(1);
        EXPECT_EQ(client->request("heartbeat")["status"], "success");
    }
    EXPECT_THAT(m_log.linesWith("WARNING"), IsEmpty());
}

TEST_F(Daemon, followsTheSessionsOfTheMachine)
{
    const auto client = connectTo(2);
    m_sessions.set({{.id = 1}, {.id = 3}});
    ASSERT_TRUE(waitUntil([] { return test::daemonPipeExists(3); }, 10s));
    EXPECT_FALSE(test::daemonPipeListens(2));
    EXPECT_TRUE(test::daemonPipeListens(1));
    EXPECT_EQ(client->request("heartbeat")["status"], "success") << "clients of a closed pipe live on";
    EXPECT_EQ(m_sessions.unfreedAnswers(), 0u);

    m_sessions.failEnumeration(RPC_S_SERVER_UNAVAILABLE);
    ASSERT_TRUE(waitForLine("WARNING WTSEnumerateSessionsW failed: 1722"));
    EXPECT_TRUE(waitUntil([] { return !test::daemonPipeExists(1) && !test::daemonPipeExists(3); }));
    m_sessions.set({{.id = 1}});
    EXPECT_TRUE(waitUntil([] { return test::daemonPipeExists(1); }, 10s));
}

} // namespace
} // namespace ruvo
