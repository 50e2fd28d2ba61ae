#include "client_connection_fixture.h"

#include <QJsonArray>
#include <QPointer>
#include <QRegularExpression>
#include <QSet>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

TEST(ClientConnectionId, isARandomNumberInLowerCaseHexadecimalWithoutLeadingZeros)
{
    const QRegularExpression format("\\A(0|[1-9a-f][0-9a-f]{0,15})\\z");
    QSet<QString> ids;
    bool beyond32Bits = false;
    for (int i = 0; i < 500; ++i) {
        const QString id = ClientConnection().clientId();
        EXPECT_TRUE(format.match(id).hasMatch()) << id.toStdString();
        beyond32Bits = beyond32Bits || id.size() > 8;
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 500);
    EXPECT_TRUE(beyond32Bits);
}

TEST(ClientConnectionSession, isUnknownUntilTheSocketIsSet)
{
    EXPECT_EQ(ClientConnection().sessionId(), 0U);
}

TEST_F(ClientConnectionTest, ownsTheSocketAndKnowsItsSession)
{
    attach();
    EXPECT_EQ(connection.sessionId(), 7U);
    EXPECT_EQ(pair.accepted()->parent(), &connection);
}

TEST_F(ClientConnectionTest, deliversAMessageThatComesOneByteAtATime)
{
    attach();
    for (const char byte : PipeClient::frame(R"({"action":"heartbeat"})")) {
        EXPECT_TRUE(received.isEmpty());
        pair.client().write(QByteArray(1, byte));
        ASSERT_TRUE(pair.client().waitUntilSent());
        test::processPending();
    }
    EXPECT_TRUE(receives({QJsonObject{{"action", "heartbeat"}}}));
    EXPECT_TRUE(isInStep());
    EXPECT_EQ(received.size(), 2);
}

TEST_F(ClientConnectionTest, deliversTwoMessagesOfOneWriteInOrder)
{
    attach();
    pair.client().write(PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"n":2})"));
    EXPECT_TRUE(receives({QJsonObject{{"n", 1}}, QJsonObject{{"n", 2}}}));
}

TEST_F(ClientConnectionTest, deliversEverythingThatIsNamedInAMessage)
{
    attach();
    pair.client().send(R"({"a":[1,"zwei",null,true],"o":{"x":1.5},"text":"\u00e9\n"})"
                       "\n");
    ASSERT_TRUE(waitUntil([this] { return received.size() == 1; }));
    EXPECT_EQ(received[0]["a"].toArray(), (QJsonArray{1, "zwei", QJsonValue::Null, true}));
    EXPECT_EQ(received[0]["o"].toObject()["x"].toDouble(), 1.5);
    EXPECT_EQ(received[0]["text"].toString(), QString(u'\u00e9') + u'\n');
}

TEST_F(ClientConnectionTest, deliversALargeMessage)
{
    attach();
    const QString text(5 * 1024 * 1024, u'x');
    pair.client().send(QJsonDocument(QJsonObject{{"text", text}}).toJson());
    ASSERT_TRUE(waitUntil([this] { return received.size() == 1; }));
    EXPECT_TRUE(received[0]["text"].toString() == text);
    EXPECT_TRUE(isInStep());
}

class ClientConnectionNoMessage : public ClientConnectionTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(ClientConnectionNoMessage, isSkippedWithoutAnAnswerOrALogLine)
{
    attach();
    pair.client().send(QByteArray::fromPercentEncoding(GetParam()));
    EXPECT_TRUE(isInStep());
    EXPECT_EQ(received.size(), 1);
    EXPECT_TRUE(pair.client().received().isEmpty());
    EXPECT_EQ(log.lines(), QStringList());
    EXPECT_EQ(disconnects, 0);
}

INSTANTIATE_TEST_SUITE_P(Payload, ClientConnectionNoMessage,
                         ::testing::Values("", "[]", R"([{"action":"heartbeat"}])", "\"heartbeat\"", "7", "null",
                                           "true", "{", R"({"action":)", "{}}", "nonsense",
                                           R"({"action":"heartbeat"} x)", R"({"action":"%C3%28"})", "%FF%FE",
                                           "{\"a\":\"\\ud800\"x}", "%00%00%00%00"));

class ClientConnectionHostileLength : public ClientConnectionTest, public ::testing::WithParamInterface<quint32>
{};

TEST_P(ClientConnectionHostileLength, holdsBackEverythingBehindItAndKeepsTheConnection)
{
    attach();
    pair.client().write(PipeClient::lengthField(GetParam()));
    for (int i = 0; i < 100; ++i)
        pair.client().send("{}");
    ASSERT_TRUE(pair.client().waitUntilSent());
    // The other direction still works; what the client reads was written after its bytes had come.
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() == 0; }));
    connection.send({{"still", "here"}});
    ASSERT_TRUE(waitUntil([this] { return pair.client().messages().size() == 1; }));
    EXPECT_TRUE(received.isEmpty());
    EXPECT_EQ(disconnects, 0);
    EXPECT_TRUE(pair.client().isConnected());
}

INSTANTIATE_TEST_SUITE_P(Length, ClientConnectionHostileLength,
                         ::testing::Values(0x80000000U, 0xFFFFFFFCU, 0xFFFFFFFFU));

TEST_F(ClientConnectionTest, sendsCompactJsonBehindItsLength)
{
    attach();
    connection.send({{"status", "success"}, {"n", 1}});
    ASSERT_TRUE(waitUntil([this] { return pair.client().messages().size() == 1; }));
    EXPECT_EQ(pair.client().received(), QByteArray("\0\0\0\x1a", 4) + R"({"n":1,"status":"success"})");
}

TEST_F(ClientConnectionTest, writesAMessageInOneCall)
{
    attach();
    QList<qint64> writes;
    QObject::connect(pair.accepted(), &QLocalSocket::bytesWritten, [&](qint64 bytes) { writes.append(bytes); });
    connection.send({{"status", "success"}});
    ASSERT_TRUE(waitUntil([this] { return pair.client().messages().size() == 1; }));
    ASSERT_TRUE(waitUntil([&] { return !writes.isEmpty(); }));
    EXPECT_EQ(writes, QList<qint64>{pair.client().received().size()});
}

TEST_F(ClientConnectionTest, sendsMessagesInOrder)
{
    attach();
    for (int i = 0; i < 1000; ++i)
        connection.send({{"n", i}});
    ASSERT_TRUE(waitUntil([this] { return pair.client().messages().size() == 1000; }));
    const QList<QJsonObject> messages = pair.client().messages();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(messages[i]["n"].toInt(), i);
}

TEST(ClientConnectionSend, doesNothingWithoutASocket)
{
    ClientConnection connection;
    connection.send({{"to", "nobody"}});
}

TEST_F(ClientConnectionTest, sendsNothingOnASocketThatHasJustDisconnected)
{
    attach();
    pair.client().drop();
    ASSERT_TRUE(waitUntil([this] { return disconnects > 0; }));
    connection.send({{"to", "nobody"}});
    EXPECT_EQ(pair.accepted()->bytesToWrite(), 0);
    EXPECT_EQ(log.lines(), QStringList());
}

// Whoever sends may be walking the clients, and must not lose one under its feet.
TEST_F(ClientConnectionTest, sendToAClientThatHasGoneUnnoticedSignalsNothingFromWithin)
{
    attach();
    pair.client().drop();
    for (int i = 0; i < 100; ++i)
        connection.send({{"n", i}});
    EXPECT_EQ(disconnects, 0);
    EXPECT_TRUE(waitUntil([this] { return disconnects > 0; }));
}

TEST_F(ClientConnectionTest, isSilentAfterADisconnectFromItsOwnSide)
{
    attach();
    pair.client().send(R"({"too":"late"})");
    pair.client().socket().flush(); // without a turn of the event loop, in which it would be delivered
    connection.disconnectQuietly();
    ASSERT_TRUE(waitUntil([this] { return pair.client().isGone(); }));
    EXPECT_EQ(disconnects, 0);
    EXPECT_TRUE(received.isEmpty());
}

TEST(ClientConnectionEnd, disconnectsTheClient)
{
    test::ConnectedPair pair;
    ASSERT_TRUE(pair.isConnected());
    const QPointer<QLocalSocket> socket = pair.accepted();
    auto *connection = new ClientConnection;
    connection->setSocket(pair.accepted(), 1);
    connection->deleteLater();
    EXPECT_TRUE(socket) << "deleted by the event loop only";
    EXPECT_TRUE(waitUntil([&] { return pair.client().isGone(); }));
    EXPECT_FALSE(socket);
}

} // namespace
} // namespace ruvo
