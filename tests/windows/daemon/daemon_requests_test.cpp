// The daemon with real pipes, and more requests of one client than it can handle at once.

#include "daemon/ruvo_daemon.h"

#include "ipc/communication_server.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/daemon_client.h"
#include "windows/support/fake_sessions.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QRegularExpression>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::DaemonClient;
using test::waitUntil;

// Takes several turns of the loop, and fits into what is read ahead of a client.
constexpr int floodSize = 20000;

class DaemonRequests : public testing::Test
{
protected:
    DaemonRequests() { EXPECT_TRUE(daemon.start()); }
    ~DaemonRequests() override
    {
        if (!stopped)
            daemon.stop();
    }

    static std::unique_ptr<DaemonClient> connectTo(quint32 sessionId)
    {
        auto client = std::make_unique<DaemonClient>(sessionId);
        EXPECT_FALSE(client->waitForEvent("connected").isEmpty());
        return client;
    }
    /// So many requests in one write, with their numbers as ids.
    static void flood(DaemonClient &client, int requests)
    {
        QByteArray frames;
        for (int n = 1; n <= requests; ++n) {
            const QJsonObject request{{"action", "stop"}, {"request-id", n}};
            frames += test::PipeClient::frame(QJsonDocument(request).toJson(QJsonDocument::Compact));
        }
        client.pipe().write(frames);
    }
    /// How many requests of floods were handled so far.
    qsizetype handled() const { return log.linesWith("action: \"stop\"").size(); }

    const test::FakeSessions sessions{{.id = 1}, {.id = 2}};
    test::LogCapture log;
    RuvoDaemon daemon;
    bool stopped = false;
};

TEST_F(DaemonRequests, ofOthersAreServedDuringAFloodOfOne)
{
    const auto flooding = connectTo(1);
    const auto other = connectTo(2);
    flood(*flooding, floodSize);
    ASSERT_TRUE(waitUntil([this] { return handled() > 0; }));
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(other->request("list")["status"], "success");
    std::cout << "answered after " << elapsed.elapsed() << " ms, " << handled() << " requests of the flood\n";
    EXPECT_LT(handled(), floodSize);
    EXPECT_LT(elapsed.elapsed(), 1000);
    ASSERT_TRUE(waitUntil([this] { return handled() == floodSize; }, 60s));
    ASSERT_TRUE(waitUntil([&] { return flooding->pipe().messages().last()["request-id"] == floodSize; }));
    int answers = 0;
    for (const QJsonObject &message : flooding->pipe().messages()) {
        if (message.contains("request-id")) {
            ASSERT_EQ(message["request-id"].toInt(), ++answers) << "in their order";
        }
    }
    EXPECT_EQ(answers, floodSize);
}

TEST_F(DaemonRequests, areAllHandledBeforeTheDepartureOfTheirClient)
{
    const auto flooding = connectTo(1);
    flood(*flooding, floodSize);
    ASSERT_TRUE(flooding->pipe().waitUntilSent());
    ASSERT_TRUE(waitUntil([this] { return handled() > 0; }));
    flooding->pipe().drop();
    ASSERT_TRUE(waitUntil([this] { return log.contains("Client disconnected"); }, 60s));
    EXPECT_EQ(handled(), floodSize);
    EXPECT_TRUE(log.contains("INFO Remaining connected clients: 0"));
}

// A flood may last longer than a client may be silent, and its heartbeats stand behind it.
TEST_F(DaemonRequests, thatWaitAreNoSilence)
{
    const auto flooding = connectTo(1);
    const auto silent = connectTo(2);
    auto *server = daemon.findChild<CommunicationServer *>();
    flood(*flooding, floodSize);
    ASSERT_TRUE(waitUntil([this] { return handled() > 0; }));
    ASSERT_LT(handled(), floodSize);
    {
        LONGLONG frequency = 0;
        QueryPerformanceFrequency(reinterpret_cast<LARGE_INTEGER *>(&frequency));
        std::atomic<LONGLONG> ahead = 0;
        const test::ImportRedirection<IMPORT(QueryPerformanceCounter)> counter([&](LARGE_INTEGER *count) {
            const BOOL result = counter.real(count);
            count->QuadPart += ahead;
            return result;
        });
        for (int check = 0; check < 3; ++check) {
            ahead += 5 * frequency;
            server->checkHeartbeats();
        }
    }
    EXPECT_EQ(log.linesWith("timed out").size(), 1);
    EXPECT_EQ(server->clientCount(), 1);
    EXPECT_TRUE(waitUntil([&] { return silent->pipe().isGone(); }));
    EXPECT_TRUE(flooding->isConnected());
}

TEST_F(DaemonRequests, areForgottenAtTheEndButNoDepartureIs)
{
    const auto flooding = connectTo(1);
    flood(*flooding, floodSize);
    ASSERT_TRUE(waitUntil([this] { return handled() > 0; }));
    const QRegularExpression pattern("Client \"([0-9a-f]+)\" action: \"stop\"");
    daemon.onClientDisconnected(pattern.match(log.lines().join('\n')).captured(1), 1);
    EXPECT_FALSE(log.contains("Client disconnected"));
    stopped = true;
    daemon.stop();
    EXPECT_TRUE(log.contains("Client disconnected"));
    EXPECT_TRUE(log.contains("Checking for stale processes in session 1"));
    const qsizetype before = handled();
    EXPECT_LT(before, floodSize);
    test::processPending();
    EXPECT_EQ(handled(), before);
}

} // namespace
} // namespace ruvo
