// What a connection keeps in memory of either direction.

#include "client_connection_fixture.h"

#include <gmock/gmock.h>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

constexpr qint64 mebibyte = 1024 * 1024;
static_assert(ClientConnection::readAheadLimit == mebibyte);
static_assert(ClientConnection::maxUnsentBytes == 64 * mebibyte);

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

/// A message whose frame has this many bytes.
QJsonObject messageOfFrame(qint64 size)
{
    return {{"text", QString(size - 15, u'x')}};
}

TEST_F(ClientConnectionTest, keepsExactlyTheLimit)
{
    attach();
    pair.client().socket().setReadBufferSize(1);
    for (int i = 0; i < 64; ++i)
        connection.send(messageOfFrame(mebibyte));
    ASSERT_EQ(pair.accepted()->bytesToWrite(), ClientConnection::maxUnsentBytes) << "nothing of it is sent yet";
    test::processPending();
    EXPECT_EQ(disconnects, 0);
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(ClientConnectionTest, keepsNotAByteMoreThanTheLimit)
{
    attach();
    pair.client().socket().setReadBufferSize(1);
    for (int i = 0; i < 63; ++i)
        connection.send(messageOfFrame(mebibyte));
    connection.send(messageOfFrame(mebibyte + 1));
    ASSERT_EQ(pair.accepted()->bytesToWrite(), ClientConnection::maxUnsentBytes + 1);
    EXPECT_EQ(log.linesWith("does not read its messages").size(), 1);
    EXPECT_TRUE(waitUntil([this] { return disconnects == 1; }));
}

// Whoever is given up for what it does not read goes, whatever it still sends.
TEST_F(ClientConnectionTest, givesUpAClientThatIsHeldBack)
{
    attach();
    connection.setHeldBack(true);
    pair.client().socket().setReadBufferSize(1);
    connection.send(messageOfFrame(ClientConnection::maxUnsentBytes + 1));
    EXPECT_TRUE(waitUntil([this] { return disconnects == 1; }));
}

TEST_F(ClientConnectionTest, readsAheadSoMuchAndNoMore)
{
    attach();
    connection.setHeldBack(true);
    const QString text(3 * mebibyte, u'x');
    pair.client().send(QJsonDocument(QJsonObject{{"text", text}}).toJson());
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() >= ClientConnection::readAheadLimit; }));
    for (int i = 0; i < 5; ++i)
        test::processPending();
    EXPECT_EQ(pair.accepted()->bytesAvailable(), ClientConnection::readAheadLimit);
    EXPECT_GT(pair.client().socket().bytesToWrite(), 0);
    connection.setHeldBack(false);
    ASSERT_TRUE(waitUntil([this] { return received.size() == 1; }));
    EXPECT_TRUE(received[0]["text"].toString() == text);
}

// What is no message is dropped here, and so never held back.
TEST_F(ClientConnectionTest, letsTheEventLoopHaveItsTurnAfterEachSlice)
{
    attach();
    connection.setHeldBack(true);
    constexpr qsizetype frames = ClientConnection::readAheadLimit / 7;
    pair.client().write(PipeClient::frame("{}") + PipeClient::frame("[1]").repeated(frames)
                        + PipeClient::frame(R"({"n":1})"));
    ASSERT_TRUE(waitUntil([this] { return pair.accepted()->bytesAvailable() >= ClientConnection::readAheadLimit; }));
    qint64 unread = -1;
    handler = [&](const QJsonObject &) {
        if (unread < 0)
            QMetaObject::invokeMethod(
                &connection, [&] { unread = pair.accepted()->bytesAvailable(); }, Qt::QueuedConnection);
    };
    connection.setHeldBack(false);
    EXPECT_TRUE(waitUntil([this] { return received.size() == 2; }));
    EXPECT_GE(unread, ClientConnection::readAheadLimit - 2 * ClientConnection::sliceSize);
}

} // namespace
} // namespace ruvo
