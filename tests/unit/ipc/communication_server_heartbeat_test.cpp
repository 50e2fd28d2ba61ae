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
    checkAt(20000ms);
    checkAt(25000ms);
    EXPECT_EQ(signalled, QStringList{timedOut()}) << "nor is it found a second time";
}

TEST_F(CommunicationServerHeartbeat, forgetsAClientThatHasLeft)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    client->drop();
    ASSERT_TRUE(isSignalled("disconnected " + ids[0] + " session 1"));
    checkAt(5000ms);
    checkAt(10000ms);
    checkAt(15000ms);
    EXPECT_EQ(signalled.filter("timed out"), QStringList());
    EXPECT_FALSE(log.contains("timed out"));
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

// Requests that wait

TEST_F(CommunicationServerHeartbeat, doesNotJudgeAClientWhoseRequestsWait)
{
    const auto client = connectClient();
    const auto silent = connectClient();
    ASSERT_TRUE(client && silent);
    bool isBusy = true;
    server.setBusyClients([&](const QString &id) { return isBusy && id == ids[0]; });
    for (Milliseconds time = 5000ms; time <= 60000ms; time += 5000ms)
        checkAt(time);
    EXPECT_EQ(signalled.filter("timed out"), QStringList{timedOut(1)});
    // From then on it has its ten seconds again: its heartbeats may have been the last of what waited.
    isBusy = false;
    checkAt(65000ms);
    checkAt(70000ms);
    EXPECT_EQ(server.clientCount(), 1);
    checkAt(70001ms);
    EXPECT_EQ(signalled.last(), timedOut(0));
}

// A machine that sleeps

TEST_F(CommunicationServerHeartbeat, aSleepOfAnHourCostsNobodyItsPlace)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    now = started + 4000ms;
    server.updateHeartbeat(ids[0]);
    checkAt(5000ms);
    checkAt(3610000ms); // instead of at 10 s: 3600 s late
    checkAt(3614000ms);
    EXPECT_EQ(server.clientCount(), 1);
    checkAt(3614001ms);
    EXPECT_EQ(signalled.last(), timedOut()) << "the silence before the sleep and the one after it count";
}

TEST_F(CommunicationServerHeartbeat, aSecondSleepIsForgivenLikeTheFirst)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    checkAt(65000ms);  // due at 10 s
    checkAt(125000ms); // due at 70 s
    EXPECT_EQ(server.clientCount(), 1);
    checkAt(130000ms);
    EXPECT_EQ(signalled.last(), timedOut());
}

// Its stamp may be younger than the moment when the check was due, and must not get beyond now.
TEST_F(CommunicationServerHeartbeat, aHeartbeatBeforeALateCheckIsGoodForTenSeconds)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    now = started + 60000ms;
    server.updateHeartbeat(ids[0]);
    checkAt(65000ms);
    checkAt(70000ms);
    checkAt(75000ms);
    EXPECT_EQ(server.clientCount(), 1);
    checkAt(75001ms);
    EXPECT_EQ(signalled.last(), timedOut());
}

// The thread may have been busy since just after the check before: whatever came since then waits in the pipe.
TEST_F(CommunicationServerHeartbeat, aHeartbeatThatWaitsUnreadSavesItsClient)
{
    const auto beating = connectClient();
    const auto silent = connectClient();
    ASSERT_TRUE(beating && silent);
    QObject::connect(&server, &CommunicationServer::messageReceived,
                     [this](const QString &id) { server.updateHeartbeat(id); });
    checkAt(5000ms);
    checkAt(9900ms);
    beating->send(R"({"action":"heartbeat"})");
    checkAt(65000ms); // due at 14.9 s, when nobody had been heard for longer than 10 s
    EXPECT_EQ(server.clientCount(), 2);
    ASSERT_TRUE(waitUntil([this] { return signalled.last().startsWith("message"); }));
    checkAt(70000ms);
    EXPECT_EQ(signalled.last(), timedOut(1));
    EXPECT_EQ(server.clientCount(), 1);
}

TEST_F(CommunicationServerHeartbeat, theCheckAfterALateOneIsARegularOne)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    checkAt(5000ms);
    checkAt(20000ms);
    checkAt(26000ms); // due at 25 s: not late enough to be forgiven
    EXPECT_EQ(signalled.last(), timedOut());
}

TEST_F(CommunicationServerHeartbeat, aSilentClientIsFoundThoughEveryCheckIsLate)
{
    const auto client = connectClient();
    ASSERT_TRUE(client);
    for (Milliseconds time = 7000ms; time <= 28000ms; time += 7000ms)
        checkAt(time);
    EXPECT_EQ(signalled.last(), timedOut());
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
    // The clock is read once to plan the first check, and once when it comes.
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
