// What a connection delivers of a client that leaves, or that is held back for a while.

#include "client_connection_fixture.h"

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

TEST_F(ClientConnectionTest, signalsTheDisconnectOfItsClient)
{
    attach();
    pair.client().socket().disconnectFromServer();
    EXPECT_TRUE(waitUntil([this] { return disconnects > 0; }));
}

TEST_F(ClientConnectionTest, signalsForAnErrorAsForADisconnect)
{
    attach();
    emit pair.accepted()->errorOccurred(QLocalSocket::UnknownSocketError);
    EXPECT_EQ(disconnects, 1);
    emit pair.accepted()->disconnected();
    EXPECT_EQ(disconnects, 2);
}

TEST_F(ClientConnectionTest, deliversWhatCameBeforeTheDisconnect)
{
    attach();
    pair.client().send(R"({"last":"words"})");
    ASSERT_TRUE(pair.client().waitUntilSent());
    pair.client().drop();
    ASSERT_TRUE(waitUntil([this] { return disconnects > 0; }));
    EXPECT_EQ(received, QList<QJsonObject>{(QJsonObject{{"last", "words"}})});
}

TEST_F(ClientConnectionTest, deliversWhatASocketHadReadBeforeItWasSet)
{
    pair.client().send(R"({"early":1})");
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() > 0; }));
    attach();
    EXPECT_TRUE(received.isEmpty()) << "its owner is not ready inside of setSocket";
    EXPECT_TRUE(receives({QJsonObject{{"early", 1}}}));
}

TEST_F(ClientConnectionTest, signalsTheDisconnectOfASocketThatWasClosedBeforeItWasSet)
{
    pair.client().drop();
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->state() == QLocalSocket::UnconnectedState; }));
    attach();
    EXPECT_EQ(disconnects, 0) << "its owner is not ready inside of setSocket";
    EXPECT_TRUE(waitUntil([this] { return disconnects == 1; }));
}

// Held back

constexpr int million = 1000 * 1000;

TEST_F(ClientConnectionTest, readsNothingWhileItIsHeldBack)
{
    attach();
    connection.setHeldBack(true);
    pair.client().send(R"({"n":1})");
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() > 0; }));
    test::processPending();
    EXPECT_TRUE(received.isEmpty());
    connection.setHeldBack(false);
    EXPECT_TRUE(received.isEmpty()) << "its owner is not ready inside of setHeldBack";
    EXPECT_TRUE(receives({QJsonObject{{"n", 1}}}));
    EXPECT_TRUE(isInStep());
}

TEST_F(ClientConnectionTest, deliversNothingMoreOnceAMessageHasHeldItBack)
{
    attach();
    handler = [this](const QJsonObject &) { connection.setHeldBack(true); };
    pair.client().write(PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"n":2})") + PipeClient::frame("{}"));
    for (int n = 1; n <= 2; ++n) {
        ASSERT_TRUE(waitUntil([&] { return received.size() == n; }));
        test::processPending();
        ASSERT_EQ(received.size(), n);
        connection.setHeldBack(false);
    }
    EXPECT_TRUE(receives({QJsonObject{{"n", 1}}, QJsonObject{{"n", 2}}, QJsonObject()}));
}

// A buffer that grew with each release would hold whatever a client likes to send.
TEST_F(ClientConnectionTest, readsMoreOnlyWhenTheMessagesBeforeAreDelivered)
{
    attach();
    handler = [this](const QJsonObject &) { connection.setHeldBack(true); };
    constexpr int messages = 6 * million / 6;
    const QByteArray sent = PipeClient::frame("{}").repeated(messages);
    pair.client().write(sent);
    for (int n = 1; n <= 20; ++n) {
        ASSERT_TRUE(waitUntil([&] { return received.size() == n; }));
        connection.setHeldBack(false);
        test::processPending();
    }
    // One read, the socket's own buffer, and what the system keeps of a pipe.
    EXPECT_GT(pair.client().socket().bytesToWrite(), sent.size() - 3 * million);
    handler = nullptr;
    connection.setHeldBack(false);
    EXPECT_TRUE(waitUntil([this] { return received.size() == messages; }));
}

TEST_F(ClientConnectionTest, deliversTheRestBeforeTheDisconnectThoughHeldBack)
{
    attach();
    connection.setHeldBack(true);
    pair.client().write(PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"last":"words"})"));
    ASSERT_TRUE(pair.client().waitUntilSent());
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() > 0; }));
    pair.client().drop();
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->state() == QLocalSocket::UnconnectedState; }));
    test::processPending();
    EXPECT_TRUE(received.isEmpty());
    EXPECT_EQ(disconnects, 0);
    handler = [this](const QJsonObject &) { EXPECT_EQ(disconnects, 0); };
    connection.setHeldBack(false);
    EXPECT_TRUE(waitUntil([this] { return disconnects > 0; }));
    EXPECT_EQ(received, (QList{QJsonObject{{"n", 1}}, QJsonObject{{"last", "words"}}}));
}

TEST_F(ClientConnectionTest, deliversWhatItHasNotReadYetBeforeTheDisconnect)
{
    attach();
    connection.setHeldBack(true);
    pair.client().send(R"({"last":"words"})");
    ASSERT_TRUE(pair.client().waitUntilSent());
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() > 0; }));
    connection.setHeldBack(false);
    emit pair.accepted()->disconnected(); // before the event loop comes to the release
    EXPECT_EQ(received, QList{(QJsonObject{{"last", "words"}})});
    EXPECT_EQ(disconnects, 1);
}

TEST_F(ClientConnectionTest, tellsTheLengthOfTheMessageThatItDelivers)
{
    attach();
    QList<qsizetype> sizes;
    handler = [&](const QJsonObject &) { sizes.append(connection.messageSize()); };
    pair.client().write(PipeClient::frame(R"({"n":1})") + PipeClient::frame("{ }"));
    EXPECT_TRUE(waitUntil([this] { return received.size() == 2; }));
    EXPECT_EQ(sizes, (QList<qsizetype>{7, 3}));
}

} // namespace
} // namespace ruvo
