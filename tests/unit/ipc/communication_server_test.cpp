#include "communication_server_fixture.h"

#include "support/pipe_trouble.h"

#include <gmock/gmock.h>

#include <QPointer>

#include <atomic>
#include <thread>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

QString escaped(QString name)
{
    return name.replace('\\', R"(\\)");
}

// Sessions

TEST_F(CommunicationServerTest, opensAPipeForEachSessionAtItsStart)
{
    sessions = {1, 22};
    EXPECT_TRUE(server.start(serverName));
    EXPECT_EQ(log.lines(), (QStringList{
                               "INFO Creating pipe for new active session 1",
                               "INFO Named pipe server started for session 1 : \"" + escaped(pipeName(1)) + '"',
                               "INFO Creating pipe for new active session 22",
                               "INFO Named pipe server started for session 22 : \"" + escaped(pipeName(22)) + '"',
                               "DEBUG Session polling started (every 3 seconds)",
                           }));
    EXPECT_TRUE(canConnect(1));
    EXPECT_TRUE(canConnect(22));
    EXPECT_FALSE(canConnect(2));
}

TEST_F(CommunicationServerTest, startsWithoutAnySession)
{
    sessions = {};
    EXPECT_TRUE(server.start(serverName));
    EXPECT_EQ(log.lines(), QStringList{"DEBUG Session polling started (every 3 seconds)"});
}

TEST_F(CommunicationServerTest, startsEvenIfNoPipeCanBeMade)
{
    const test::PipeNameTaken taken(pipeName(1));
    EXPECT_TRUE(server.start(serverName));
    EXPECT_TRUE(log.contains("WARNING Failed to start named pipe for session 1 : "));
}

TEST_F(CommunicationServerTest, servesASessionFromThePollAfterItsUserLoggedOn)
{
    ASSERT_TRUE(server.start(serverName));
    sessions = {1, 2};
    EXPECT_FALSE(canConnect(2));
    server.pollSessions();
    EXPECT_TRUE(canConnect(2));
    EXPECT_EQ(log.linesWith("Creating pipe for new active session").size(), 2);
}

TEST_F(CommunicationServerTest, pollsLeaveAServedSessionAlone)
{
    ASSERT_TRUE(server.start(serverName));
    const auto servers = server.findChildren<SessionServer *>();
    log.clear();
    server.pollSessions();
    server.pollSessions();
    test::processPending();
    EXPECT_EQ(server.findChildren<SessionServer *>(), servers);
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(CommunicationServerTest, removesThePipeOfASessionWhoseUserLoggedOff)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    sessions = {1};
    log.clear();
    server.pollSessions();
    EXPECT_EQ(log.lines(), QStringList{"INFO Removing pipe for inactive session 2"});
    test::processPending();
    EXPECT_EQ(log.linesWith("stopped"), QStringList{"DEBUG Named pipe server stopped for session 2"});
    EXPECT_FALSE(canConnect(2));
    EXPECT_TRUE(canConnect(1));
}

TEST_F(CommunicationServerTest, letsTheClientsOfARemovedPipeLiveOn)
{
    ASSERT_TRUE(server.start(serverName));
    const auto client = connectClient(1);
    ASSERT_TRUE(client);
    sessions = {};
    server.pollSessions();
    settle();
    EXPECT_FALSE(canConnect(1));
    client->send(R"({"still":"here"})");
    EXPECT_TRUE(isSignalled("message " + ids[0] + R"( {"still":"here"})"));
    server.sendToClient(ids[0], {{"and", "heard"}});
    EXPECT_TRUE(waitUntil([&] { return client->messages() == QList{QJsonObject{{"and", "heard"}}}; }));
    client->drop();
    EXPECT_TRUE(isSignalled("disconnected " + ids[0] + " session 1"));
}

TEST_F(CommunicationServerTest, opensAllPipesAgainAfterTheSystemCouldNotListItsSessions)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    sessions = {};
    server.pollSessions();
    settle();
    EXPECT_FALSE(canConnect(1));
    EXPECT_FALSE(canConnect(2));
    sessions = {1, 2};
    server.pollSessions();
    EXPECT_TRUE(canConnect(1));
    EXPECT_TRUE(canConnect(2));
}

TEST_F(CommunicationServerTest, triesAPipeAgainThatCouldNotBeMade)
{
    {
        const test::PipeNameTaken taken(pipeName(1));
        ASSERT_TRUE(server.start(serverName));
        server.pollSessions();
        EXPECT_EQ(log.linesWith("INFO Creating pipe for new active session 1").size(), 2);
        EXPECT_EQ(log.linesWith("WARNING Failed to start named pipe for session 1").size(), 2);
        EXPECT_TRUE(server.findChildren<SessionServer *>().isEmpty()) << "deleted at once";
    }
    server.pollSessions();
    EXPECT_TRUE(connectClient(1));
}

TEST_F(CommunicationServerTest, reopensAPipeThatWasClosed)
{
    ASSERT_TRUE(server.start(serverName));
    const auto early = connectClient(1);
    ASSERT_TRUE(early);
    server.findChild<SessionServer *>()->server().close();
    ASSERT_FALSE(canConnect(1));
    server.pollSessions();
    EXPECT_TRUE(connectClient(1));
    EXPECT_TRUE(early->isConnected());
    EXPECT_EQ(server.clientCount(), 2);
}

TEST_F(CommunicationServerTest, reopensAPipeThatLostAListener)
{
    ASSERT_TRUE(server.start(serverName));
    ASSERT_TRUE(test::loseListener(server.findChild<SessionServer *>()->server(), pipeName(1)));
    server.pollSessions();
    settle();
    EXPECT_TRUE(connectClient(1));
}

// On Windows nobody else can take the name of a pipe that was open: tests/windows/ipc has this one.
#ifndef Q_OS_WIN
TEST_F(CommunicationServerTest, makesAPipeAnewThatCannotBeReopened)
{
    ASSERT_TRUE(server.start(serverName));
    {
        server.findChild<SessionServer *>()->server().close();
        const test::PipeNameTaken taken(pipeName(1));
        server.pollSessions();
        settle();
        EXPECT_TRUE(server.findChildren<SessionServer *>().isEmpty());
    }
    server.pollSessions();
    EXPECT_TRUE(connectClient(1));
}
#endif

// Clients

TEST_F(CommunicationServerTest, greetsANewClientWhenItCanAlreadyBeReached)
{
    QObject::connect(&server, &CommunicationServer::clientConnected, [this](const QString &id) {
        EXPECT_EQ(server.clientCount(), 1);
        server.sendToClient(id, {{"event", "connected"}});
    });
    ASSERT_TRUE(server.start(serverName));
    const auto client = connectClient();
    ASSERT_TRUE(client);
    EXPECT_TRUE(waitUntil([&] { return client->messages() == QList{QJsonObject{{"event", "connected"}}}; }));
}

TEST_F(CommunicationServerTest, acceptsTwoClientsThatConnectAtOnceToDifferentPipes)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    PipeClient first(pipeName(1));
    PipeClient second(pipeName(2));
    ASSERT_TRUE(waitUntil([this] { return ids.size() == 2; }));
    EXPECT_NE(ids[0], ids[1]);
    first.drop();
    second.drop();
    ASSERT_TRUE(waitUntil([this] { return signalled.filter("disconnected").size() == 2; }));
    EXPECT_EQ(signalled.filter("session 1").size(), 1);
    EXPECT_EQ(signalled.filter("session 2").size(), 1);
}

TEST_F(CommunicationServerTest, takesOneConnectionForEachSignal)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    int pending = 0;
    for (SessionServer *sessionServer : server.findChildren<SessionServer *>()) {
        QObject::connect(&sessionServer->server(), &QLocalServer::newConnection, [&] { ++pending; });
        sessionServer->blockSignals(true);
    }
    const PipeClient first(pipeName(1));
    const PipeClient second(pipeName(1));
    const PipeClient other(pipeName(2));
    ASSERT_TRUE(waitUntil([&] { return pending == 3; }));
    for (const int expected : {1, 2, 3, 3}) {
        server.onNewConnection();
        EXPECT_EQ(server.clientCount(), expected);
    }
}

TEST_F(CommunicationServerTest, acceptsAClientThatComesWhileThePipeIsBeingMade)
{
    // Natively a client can only come later; on Windows it may find the pipe's first instance.
    sessions = {};
    ASSERT_TRUE(server.start(serverName));
    std::atomic<bool> stop = false;
    std::atomic<bool> connected = false;
    std::thread impatient([&] {
        while (!stop) {
            PipeClient client(pipeName(1));
            if (!client.isConnected())
                continue;
            connected = true;
            while (!stop)
                std::this_thread::yield();
        }
    });
    sessions = {1};
    server.pollSessions();
    EXPECT_TRUE(waitUntil([&] { return ids.size() == 1 && connected; }));
    stop = true;
    impatient.join();
}

TEST_F(CommunicationServerTest, passesMessagesOnWithTheirClient)
{
    ASSERT_TRUE(server.start(serverName));
    const auto first = connectClient();
    const auto second = connectClient();
    ASSERT_TRUE(first && second);
    first->send(R"({"from":1})");
    EXPECT_TRUE(isSignalled("message " + ids[0] + R"( {"from":1})"));
    second->send(R"({"from":2})");
    EXPECT_TRUE(isSignalled("message " + ids[1] + R"( {"from":2})"));
}

TEST_F(CommunicationServerTest, sendsToOneClientOnly)
{
    ASSERT_TRUE(server.start(serverName));
    const auto first = connectClient();
    const auto second = connectClient();
    ASSERT_TRUE(first && second);
    server.sendToClient(ids[1], {{"to", 2}});
    ASSERT_TRUE(waitUntil([&] { return second->messages().size() == 1; }));
    settle();
    EXPECT_TRUE(first->received().isEmpty());
}

TEST_F(CommunicationServerTest, ignoresWhatIsSentToAnUnknownClient)
{
    server.sendToClient("nobody", {{"to", "nobody"}});
    server.updateHeartbeat("nobody");
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(CommunicationServerTest, broadcastsToEveryClient)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    const auto first = connectClient(1);
    const auto second = connectClient(2);
    ASSERT_TRUE(first && second);
    server.broadcast({{"event", "shutdown"}});
    const QList expected{QJsonObject{{"event", "shutdown"}}};
    EXPECT_TRUE(waitUntil([&] { return first->messages() == expected && second->messages() == expected; }));
}

// Departures

TEST_F(CommunicationServerTest, signalsADepartureOnceWhenErrorAndDisconnectAreReported)
{
    ASSERT_TRUE(server.start(serverName));
    ASSERT_TRUE(connectClient());
    auto *socket = server.findChild<QLocalSocket *>();
    ASSERT_TRUE(socket);
    emit socket->errorOccurred(QLocalSocket::PeerClosedError);
    emit socket->disconnected();
    settle();
    EXPECT_EQ(signalled.filter("disconnected"), QStringList{"disconnected " + ids[0] + " session 1"});
    EXPECT_EQ(server.clientCount(), 0);
}

TEST_F(CommunicationServerTest, signalsADepartureWhenTheClientIsNoLongerCounted)
{
    ASSERT_TRUE(server.start(serverName));
    const auto leaving = connectClient();
    const auto staying = connectClient();
    ASSERT_TRUE(leaving && staying);
    QList<qsizetype> remaining;
    const QPointer<ClientConnection> connection = server.findChild<ClientConnection *>();
    QObject::connect(&server, &CommunicationServer::clientDisconnected, [&] {
        remaining.append(server.clientCount());
        EXPECT_TRUE(connection) << "destroyed by the event loop only";
    });
    leaving->drop();
    ASSERT_TRUE(isSignalled("disconnected " + ids[0] + " session 1"));
    EXPECT_EQ(remaining, QList<qsizetype>{1});
    settle();
    EXPECT_EQ(server.findChildren<ClientConnection *>().size(), 1);
    EXPECT_TRUE(staying->isConnected());
}

TEST_F(CommunicationServerTest, ignoresTheDisconnectOfAnUnknownClient)
{
    server.onClientDisconnected("nobody");
    EXPECT_EQ(signalled, QStringList());
}

TEST_F(CommunicationServerTest, dropsMessagesOfClientsThatAreGone)
{
    server.onClientMessage("nobody", {{"action", "heartbeat"}});
    EXPECT_EQ(signalled, QStringList());
}

TEST_F(CommunicationServerTest, dropsTheRestOfAReadWhenAMessageEndedTheClientsLife)
{
    ASSERT_TRUE(server.start(serverName));
    const auto client = connectClient();
    ASSERT_TRUE(client);
    QObject::connect(&server, &CommunicationServer::messageReceived,
                     [this](const QString &id) { server.onClientDisconnected(id); });
    client->write(PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"n":2})"));
    ASSERT_TRUE(isSignalled("disconnected " + ids[0] + " session 1"));
    settle();
    EXPECT_EQ(signalled.filter("message").size(), 1);
}

TEST_F(CommunicationServerTest, givesUpAClientThatLeavesTooMuchUnreadAsOneDeparture)
{
    ASSERT_TRUE(server.start(serverName));
    const auto client = connectClient();
    const auto other = connectClient();
    ASSERT_TRUE(client && other);
    client->socket().setReadBufferSize(1);
    const QJsonObject large{{"text", QString(1024 * 1024, u'x')}};
    for (int i = 0; i < 80; ++i)
        server.sendToClient(ids[0], large);
    EXPECT_EQ(server.clientCount(), 2);
    EXPECT_TRUE(isSignalled("disconnected " + ids[0] + " session 1"));
    EXPECT_TRUE(waitUntil([&] { return client->isGone() || client->socket().bytesAvailable() > 0; }));
    server.sendToClient(ids[1], {{"still", "served"}});
    EXPECT_TRUE(waitUntil([&] { return other->messages().size() == 1; }));
    EXPECT_EQ(signalled.filter("disconnected").size(), 1);
    EXPECT_EQ(log.linesWith("WARNING").size(), 1);
}

TEST_F(CommunicationServerTest, outlivesAClientThatLeavesWhileItsMessageIsHandled)
{
    ASSERT_TRUE(server.start(serverName));
    const auto client = connectClient();
    ASSERT_TRUE(client);
    const QPointer<ClientConnection> connection = server.findChild<ClientConnection *>();
    QObject::connect(&server, &CommunicationServer::messageReceived, [&](const QString &id) {
        client->drop();
        EXPECT_TRUE(isSignalled("disconnected " + id + " session 1"));
        settle();
        EXPECT_TRUE(connection) << "still on the stack";
    });
    client->write(PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"n":2})"));
    EXPECT_TRUE(waitUntil([&] { return !connection; }));
    EXPECT_EQ(signalled.filter("message").size(), 1);
}

// Stop

TEST_F(CommunicationServerTest, dropsNewClientsDuringTheShutdownAndServesTheOthers)
{
    ASSERT_TRUE(server.start(serverName));
    const auto early = connectClient();
    ASSERT_TRUE(early);
    server.refuseNewClients();
    PipeClient late(pipeName(1));
    EXPECT_TRUE(waitUntil([&] { return late.isGone(); }));
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_EQ(ids.size(), 1);
    early->send(R"({"still":"here"})");
    EXPECT_TRUE(isSignalled("message " + ids[0] + R"( {"still":"here"})"));
}

TEST_F(CommunicationServerTest, stopDropsClientsAndPipesWithoutADepartureSignal)
{
    sessions = {1, 2};
    ASSERT_TRUE(server.start(serverName));
    const auto first = connectClient(1);
    const auto second = connectClient(2);
    ASSERT_TRUE(first && second);
    signalled.clear();
    server.stop();
    EXPECT_EQ(server.clientCount(), 0);
    EXPECT_EQ(server.findChildren<ClientConnection *>().size(), 2) << "destroyed by the event loop only";
    EXPECT_TRUE(waitUntil([&] { return first->isGone() && second->isGone(); }));
    settle();
    EXPECT_EQ(signalled, QStringList());
    EXPECT_TRUE(server.children().isEmpty());
    EXPECT_FALSE(canConnect(1));
    EXPECT_FALSE(canConnect(2));
    EXPECT_EQ(log.linesWith("Named pipe server stopped").size(), 2);
}

TEST_F(CommunicationServerTest, stopsWithoutHavingStarted)
{
    server.stop();
    EXPECT_EQ(signalled, QStringList());
    EXPECT_EQ(log.lines(), QStringList());
}

} // namespace
} // namespace ruvo
