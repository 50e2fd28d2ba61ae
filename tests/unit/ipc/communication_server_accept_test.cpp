// How clients that have connected are taken from the pipes.

#include "communication_server_fixture.h"

#include <atomic>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

/// A server that hears nothing of its pipes: who connects stays pending until it is taken.
class CommunicationServerAccept : public CommunicationServerTest
{
protected:
    /// After the server's start.
    void deafen()
    {
        for (SessionServer *sessionServer : server.findChildren<SessionServer *>()) {
            QObject::connect(&sessionServer->server(), &QLocalServer::newConnection, [this] { ++pending; });
            sessionServer->blockSignals(true);
        }
    }
    /// A client that is pending; null if it is not.
    std::unique_ptr<PipeClient> connectPending(quint32 session = 1)
    {
        const int before = pending;
        auto client = std::make_unique<PipeClient>(pipeName(session));
        if (!waitUntil([&] { return pending == before + 1; }))
            return nullptr;
        return client;
    }
    bool isServed(PipeClient &client)
    {
        server.broadcast({{"to", "all"}});
        return waitUntil([&] { return client.messages() == QList{QJsonObject{{"to", "all"}}}; });
    }

    int pending = 0;
};

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

TEST_F(CommunicationServerTest, acceptsAnyNumberOneAfterTheOther)
{
    ASSERT_TRUE(server.start(serverName));
    std::vector<std::unique_ptr<PipeClient>> clients;
    for (int i = 0; i < 2 * CommunicationServer::maxAcceptsPerTurn + 1; ++i) {
        clients.push_back(connectClient());
        ASSERT_TRUE(clients.back()) << i;
    }
}

TEST_F(CommunicationServerAccept, takesSixteenATurnAndTheRestLater)
{
    ASSERT_TRUE(server.start(serverName));
    deafen();
    std::vector<std::unique_ptr<PipeClient>> clients;
    for (int i = 0; i < 20; ++i) {
        clients.push_back(connectPending());
        ASSERT_TRUE(clients.back()) << i;
    }
    for (int i = 0; i < 20; ++i)
        server.onNewConnection();
    EXPECT_EQ(server.clientCount(), 16);
    settle();
    EXPECT_EQ(server.clientCount(), 20);
}

TEST_F(CommunicationServerAccept, takesAPendingClientOfASessionThatGoes)
{
    ASSERT_TRUE(server.start(serverName));
    deafen();
    const auto client = connectPending();
    ASSERT_TRUE(client);
    sessions = {};
    server.pollSessions();
    EXPECT_EQ(server.clientCount(), 1);
    settle();
    EXPECT_TRUE(isServed(*client));
}

TEST_F(CommunicationServerAccept, takesAPendingClientAtTheNextPoll)
{
    ASSERT_TRUE(server.start(serverName));
    deafen();
    const auto client = connectPending();
    ASSERT_TRUE(client);
    server.pollSessions();
    EXPECT_EQ(server.clientCount(), 1);
    EXPECT_TRUE(isServed(*client));
}

} // namespace
} // namespace ruvo
