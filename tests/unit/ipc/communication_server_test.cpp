#include "communication_server_fixture.h"

#include "support/pipe_trouble.h"

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
