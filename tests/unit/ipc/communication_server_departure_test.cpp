// How clients leave the server.

#include "communication_server_fixture.h"

#include <QPointer>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

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

} // namespace
} // namespace ruvo
