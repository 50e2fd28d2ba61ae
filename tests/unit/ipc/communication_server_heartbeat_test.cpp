#include "communication_server_fixture.h"

#include <QElapsedTimer>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

class CommunicationServerHeartbeat : public CommunicationServerTest
{
protected:
    void SetUp() override { ASSERT_TRUE(server.start(serverName)); }
    /// A heartbeat check at this time after the start.
    void checkAt(Milliseconds time)
    {
        now = started + time;
        server.checkHeartbeats();
    }
    QString timedOut(int client = 0) const { return "timed out " + ids[client] + " session 1"; }

    const Milliseconds started = now;
};

TEST_F(CommunicationServerHeartbeat, aClientMayBeSilentForTenSecondsButNoLonger)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    checkAt(10000ms);
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_FALSE(log.contains("timed out"));
    checkAt(10001ms);
    EXPECT_EQ(server.clientCount(), 0);
    EXPECT_EQ(signalled.last(), timedOut());
}

TEST_F(CommunicationServerHeartbeat, aSilentClientIsFoundByTheThirdCheckAtTheLatest)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_EQ(signalled.last(), timedOut());
    EXPECT_TRUE(waitUntil([&] { return client->isGone(); }));
}

TEST_F(CommunicationServerHeartbeat, keepsAClientWhoseHeartbeatsCome)
{
    const auto beating = connectClient();
    const auto silent = connectClient();
    ASSERT_TRUE(beating && silent);
    for (Milliseconds time = 5000ms; time <= 60000ms; time += 5000ms) {
        server.updateHeartbeat(ids[0]);
        checkAt(time);
    }
    EXPECT_EQ(signalled.filter("timed out"), QStringList{timedOut(1)});
    EXPECT_TRUE(beating->isConnected());
}

TEST_F(CommunicationServerHeartbeat, otherMessagesAreNoSignOfLife)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    for (int n = 1; n <= 3; ++n) {
        client->send("{\"n\":" + QByteArray::number(n) + '}');
        ASSERT_TRUE(isSignalled("message " + ids[0] + QString(" {\"n\":%1}").arg(n)));
        checkAt(n * 5000ms);
    }
    EXPECT_EQ(signalled.last(), timedOut());
}

TEST_F(CommunicationServerHeartbeat, knowsNoHeartbeatOfAnUnknownClient)
{
    server.updateHeartbeat("nobody");
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_EQ(signalled, QStringList());
}

TEST_F(CommunicationServerHeartbeat, timesAClientOutAsOneDeparture)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    QList<qsizetype> counted;
    QObject::connect(&server, &CommunicationServer::clientTimedOut, [&] { counted.append(server.clientCount()); });
    signalled.clear();
    log.clear();
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_NE(server.findChild<QLocalSocket *>()->state(), QLocalSocket::ConnectedState) << "disconnected at once";
    ASSERT_TRUE(waitUntil([&] { return client->isGone(); }));
    settle();
    EXPECT_EQ(signalled, QStringList{timedOut()}) << "its disconnect is not a second departure";
    EXPECT_EQ(counted, QList<qsizetype>{0}) << "out of the table before anybody is told";
    EXPECT_EQ(log.lines(), QStringList{"WARNING Client \"" + ids[0] + "\" timed out (no heartbeat for 10000 ms)"});
    EXPECT_TRUE(server.findChildren<ClientConnection *>().isEmpty());
}

TEST_F(CommunicationServerHeartbeat, timesSeveralClientsOutInOneCheck)
{
    const auto first = connectClient();
    const auto second = connectClient();
    ASSERT_TRUE(first && second);
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_TRUE(signalled.contains(timedOut(0)));
    EXPECT_TRUE(signalled.contains(timedOut(1)));
    EXPECT_EQ(server.clientCount(), 0);
}

// A departure may end the daemon's interest in other clients, too.
TEST_F(CommunicationServerHeartbeat, reportsSessionZeroForAClientThatLeftWhileAnotherWasTimedOut)
{
    const auto first = connectClient();
    const auto second = connectClient();
    ASSERT_TRUE(first && second);
    QObject::connect(&server, &CommunicationServer::clientTimedOut,
                     [this](const QString &id) { server.onClientDisconnected(id == ids[0] ? ids[1] : ids[0]); });
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_EQ(signalled.filter("disconnected").size(), 1);
    EXPECT_EQ(signalled.filter("timed out").size(), 2);
    EXPECT_EQ(signalled.filter("session 0").size(), 1);
}

TEST_F(CommunicationServerHeartbeat, dropsWhatAClientSentThatIsTimedOut)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    client->send(R"({"too":"late"})");
    client->socket().flush(); // without a turn of the event loop, in which it would be delivered
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    settle();
    EXPECT_EQ(signalled.filter("message").size(), 0);
}

TEST_F(CommunicationServerHeartbeat, aCheckThatIsOneSecondLateStillJudges)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    checkAt(11000ms);
    EXPECT_EQ(signalled.last(), timedOut());
}

TEST_F(CommunicationServerHeartbeat, aCheckThatComesLaterJudgesNobodyAndReadsTheHeartbeatsFirst)
{
    const auto beating = connectClient();
    const auto silent = connectClient();
    ASSERT_TRUE(beating && silent);
    QObject::connect(&server, &CommunicationServer::messageReceived,
                     [this](const QString &id) { server.updateHeartbeat(id); });
    checkAt(5000ms);
    // The thread was busy for a minute; one client has sent its heartbeats all the time.
    beating->send(R"({"action":"heartbeat"})");
    checkAt(65000ms);
    EXPECT_EQ(server.clientCount(), 2);
    ASSERT_TRUE(waitUntil([this] { return signalled.last().startsWith("message"); }));
    checkAt(66000ms);
    EXPECT_EQ(signalled.last(), timedOut(1));
    EXPECT_EQ(server.clientCount(), 1);
}

TEST_F(CommunicationServerHeartbeat, aLateCheckIsRepeatedOneSecondLater)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(6001ms);
    checkAt(12001ms + 1000ms);
    ASSERT_EQ(server.clientCount(), 1);
    now += 1000ms;
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_TRUE(isSignalled(timedOut()));
    EXPECT_GE(elapsed.elapsed(), 900);
    EXPECT_LT(elapsed.elapsed(), 4000) << "not at the next regular check";
}

TEST_F(CommunicationServerHeartbeat, nobodyIsJudgedAfterTheStop)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    server.stop();
    signalled.clear();
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_EQ(signalled, QStringList());
}

// The real timers, all in one wait.
TEST(CommunicationServerTimers, pollEveryThreeSecondsFromTheStartAndCheckHeartbeatsEveryFiveFromTheBeginning)
{
    test::LogCapture log;
    QElapsedTimer elapsed;
    QList<qint64> polls;
    QList<qint64> checks;
    QList<qint64> pollsAfterStop;
    elapsed.start();
    const auto clock = [&checks, &elapsed] {
        checks.append(elapsed.elapsed());
        return CommunicationServer::Milliseconds(elapsed.elapsed());
    };
    CommunicationServer polling([&] {
        polls.append(elapsed.elapsed());
        return QList<quint32>();
    });
    CommunicationServer checking([] { return QList<quint32>(); }, nullptr, clock);
    CommunicationServer stopped([&] {
        pollsAfterStop.append(elapsed.elapsed());
        return QList<quint32>();
    });

    polling.start("ruvod-test-timers");
    stopped.start("ruvod-test-timers");
    stopped.stop();
    // Without clients the clock is read once to plan a check, and again when it comes.
    ASSERT_EQ(checks.size(), 1);
    ASSERT_TRUE(waitUntil([&] { return checks.size() > 1; }));
    EXPECT_GE(checks[1], 4700);
    EXPECT_LT(checks[1], 8000);
    ASSERT_GE(polls.size(), 2);
    EXPECT_LT(polls[0], 1000);
    EXPECT_GE(polls[1], 2800);
    EXPECT_LT(polls[1], 4900);
    EXPECT_EQ(pollsAfterStop.size(), 1);
}

} // namespace
} // namespace ruvo
