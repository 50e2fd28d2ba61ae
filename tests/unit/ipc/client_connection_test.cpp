#include "ipc/client_connection.h"

#include "support/connected_pair.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QRegularExpression>
#include <QSet>
#include <QTimer>

#include <functional>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

/// A connection over a real pipe, and what it has signalled.
class ClientConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(pair.isConnected());
        QObject::connect(&connection, &ClientConnection::messageReceived,
                         [this](const QString &id, const QJsonObject &message) {
                             EXPECT_EQ(id, connection.clientId());
                             received.append(message);
                             if (handler)
                                 handler(message);
                         });
        QObject::connect(&connection, &ClientConnection::clientDisconnected, [this](const QString &id) {
            EXPECT_EQ(id, connection.clientId());
            ++disconnects;
        });
    }

    void attach() { connection.setSocket(pair.accepted(), 7); }
    bool receives(const QList<QJsonObject> &messages)
    {
        return waitUntil([&] { return received.size() >= messages.size(); }) && received == messages;
    }
    /// Sends a message and waits for it: whatever was sent before has been dealt with then.
    bool isInStep()
    {
        const QJsonObject marker{{"marker", received.size()}};
        pair.client().send(QJsonDocument(marker).toJson());
        return waitUntil([&] { return received.contains(marker); });
    }

    test::LogCapture log;
    test::ConnectedPair pair;
    QList<QJsonObject> received;
    int disconnects = 0;
    std::function<void(const QJsonObject &)> handler;
    ClientConnection connection;
};

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
    connection->retire();
    EXPECT_TRUE(socket) << "deleted by the event loop only";
    EXPECT_TRUE(waitUntil([&] { return pair.client().isGone(); }));
    EXPECT_FALSE(socket);
}

// Unsent bytes

QJsonObject oneMebibyte()
{
    return {{"text", QString(1024 * 1024, u'x')}};
}

TEST_F(ClientConnectionTest, keepsMuchForAClientThatReadsLate)
{
    attach();
    pair.client().socket().setReadBufferSize(1);
    for (int i = 0; i < 60; ++i)
        connection.send(oneMebibyte());
    EXPECT_EQ(log.lines(), QStringList());
    pair.client().socket().setReadBufferSize(0);
    qint64 total = 0;
    EXPECT_TRUE(waitUntil([&] {
        total += pair.client().socket().readAll().size();
        return total >= 60 * 1024 * 1024;
    }));
    EXPECT_EQ(disconnects, 0);
}

TEST_F(ClientConnectionTest, givesUpAClientThatLeavesTooMuchUnread)
{
    attach();
    pair.client().socket().setReadBufferSize(1);
    for (int i = 0; i < 80; ++i)
        connection.send(oneMebibyte());
    EXPECT_EQ(disconnects, 0) << "never from inside send";
    const qint64 unsent = pair.accepted()->bytesToWrite();
    EXPECT_GT(unsent, ClientConnection::maxUnsentBytes);
    EXPECT_LT(unsent, ClientConnection::maxUnsentBytes + 2 * 1024 * 1024);

    EXPECT_TRUE(waitUntil([this] { return disconnects == 1; }));
    connection.send(oneMebibyte());
    EXPECT_LE(pair.accepted()->bytesToWrite(), unsent);
    test::processPending();
    EXPECT_EQ(disconnects, 1);
    EXPECT_EQ(log.linesWith("does not read its messages").size(), 1);
    EXPECT_THAT(log.lines().value(0).toStdString(),
                ::testing::StartsWith("WARNING Client \"" + connection.clientId().toStdString() + "\""));
}

// Handlers that run an event loop of their own

/// A handler of the first message that waits until another has come. The socket tells of that one only once.
class ClientConnectionBusyHandler : public ClientConnectionTest
{
protected:
    void SetUp() override
    {
        ClientConnectionTest::SetUp();
        handler = [this](const QJsonObject &message) {
            EXPECT_EQ(++depth, 1) << "answers would change their order";
            if (message["n"].toInt() == 1) {
                pair.client().send(R"({"n":3})");
                EXPECT_TRUE(
                    waitUntil([this] { return pair.accepted()->bytesAvailable() > 0 || received.size() > 1; }));
            }
            --depth;
        };
    }

    const QByteArray firstTwo = PipeClient::frame(R"({"n":1})") + PipeClient::frame(R"({"n":2})");
    const QList<QJsonObject> allThree{QJsonObject{{"n", 1}}, QJsonObject{{"n", 2}}, QJsonObject{{"n", 3}}};
    int depth = 0;
};

TEST_F(ClientConnectionBusyHandler, holdsBackTheNextMessages)
{
    attach();
    pair.client().write(firstTwo);
    EXPECT_TRUE(receives(allThree));
}

TEST_F(ClientConnectionBusyHandler, holdsBackTheNextMessagesWhenTheFirstCameBeforeTheSocketWasSet)
{
    pair.client().write(firstTwo);
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() > 0; }));
    attach();
    EXPECT_TRUE(receives(allThree));
}

TEST(ClientConnectionEnd, waitsForTheHandlerOfAMessage)
{
    test::ConnectedPair pair;
    ASSERT_TRUE(pair.isConnected());
    const QPointer<ClientConnection> connection = new ClientConnection;
    connection->setSocket(pair.accepted(), 1);
    int messages = 0;
    QObject::connect(connection, &ClientConnection::messageReceived, [&] {
        ++messages;
        // What an event of the inner loop schedules for deletion, the inner loop deletes.
        bool retired = false;
        QTimer::singleShot(0, connection, [&] {
            connection->retire();
            retired = true;
        });
        EXPECT_TRUE(waitUntil([&] { return retired; }));
        test::processPending();
        EXPECT_TRUE(connection) << "still on the stack";
    });
    pair.client().write(PipeClient::frame("{}") + PipeClient::frame("{}"));
    EXPECT_TRUE(waitUntil([&] { return !connection; }));
    EXPECT_EQ(messages, 1) << "nothing is delivered of a connection that is over";
}

} // namespace
} // namespace ruvo
