#include "ruvoctl/message_stream.h"

#include "ruvoctl_fake_daemon.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace std::chrono_literals;

class MessageStreamTest : public ::testing::Test
{
protected:
    MessageStreamTest() { begin(10ms); }

    void begin(std::chrono::milliseconds linger, std::chrono::milliseconds timeout = 30s)
    {
        stream = std::make_unique<MessageStream>(client, linger, timeout);
        QObject::connect(stream.get(), &MessageStream::output, &client,
                         [this](const QByteArray &line) { output += line; });
        QObject::connect(stream.get(), &MessageStream::problem, &client,
                         [this](const QString &text) { problems += text; });
        QObject::connect(stream.get(), &MessageStream::inputWanted, &client, [this] { ++inputsWanted; });
        QObject::connect(stream.get(), &MessageStream::finished, &client, [this](int status) { ends += status; });
    }
    bool waitForTheEnd()
    {
        return test::waitUntil([this] { return !ends.isEmpty(); });
    }

    test::FakeDaemon daemon;
    PipeClient client{daemon.takeClientSocket()};
    std::unique_ptr<MessageStream> stream;
    QList<QByteArray> output;
    QStringList problems;
    int inputsWanted = 0;
    QList<int> ends;
};

TEST_F(MessageStreamTest, sendsEachLineAsAMessage)
{
    stream->takeInput("{\"action\":\"list\"}\r\n\n  { \"action\" : \"é");
    stream->takeInput("\" }\n{\"last\":1}");
    stream->endInput();
    ASSERT_TRUE(waitForTheEnd());
    ASSERT_TRUE(daemon.waitForMessages(3));
    EXPECT_EQ(daemon.received(),
              (QList<QByteArray>{"{\"action\":\"list\"}", "{ \"action\" : \"é\" }", "{\"last\":1}"}));
    EXPECT_EQ(ends, QList<int>{ExitSuccess});
    EXPECT_EQ(problems, QStringList());
    EXPECT_EQ(inputsWanted, 2);
}

TEST_F(MessageStreamTest, printsEveryMessageOnALineOfItsOwn)
{
    begin(30s);
    daemon.sendText("{ \"event\" : \"stdout\",\n  \"data\" : \"a\\nb é\" }");
    daemon.send({{"status", "success"}});
    ASSERT_TRUE(test::waitUntil([this] { return output.size() >= 2; }));
    EXPECT_EQ(output, (QList<QByteArray>{R"({"data":"a\nb é","event":"stdout"})", R"({"status":"success"})"}));
}

TEST_F(MessageStreamTest, goesOnAfterABadLineAndFailsAtTheEnd)
{
    stream->takeInput("{\"n\":1}\nhello\n[2]\n\n{\"n\":3}\n");
    stream->endInput();
    ASSERT_TRUE(waitForTheEnd());
    ASSERT_TRUE(daemon.waitForMessages(2));
    EXPECT_EQ(daemon.received(), (QList<QByteArray>{"{\"n\":1}", "{\"n\":3}"}));
    ASSERT_EQ(problems.size(), 2);
    EXPECT_TRUE(problems[0].startsWith("line 2 is no JSON object: ")) << qPrintable(problems[0]);
    EXPECT_EQ(problems[1], "line 3 is no JSON object: an array");
    EXPECT_EQ(ends, QList<int>{ExitError});
}

TEST_F(MessageStreamTest, printsWhatComesWhileItLingers)
{
    begin(30s);
    stream->takeInput("{\"n\":1}\n");
    stream->endInput();
    ASSERT_TRUE(daemon.waitForMessages(1));
    daemon.send({{"late", true}});
    ASSERT_TRUE(test::waitUntil([this] { return !output.isEmpty(); }));
    EXPECT_EQ(ends, QList<int>());
}

TEST_F(MessageStreamTest, tellsALostConnection)
{
    daemon.send({{"event", "shutdown"}});
    daemon.disconnectClient();
    ASSERT_TRUE(waitForTheEnd());
    EXPECT_EQ(output, QList<QByteArray>{R"({"event":"shutdown"})"});
    EXPECT_EQ(problems, QStringList("the service closed the connection"));
    EXPECT_EQ(ends, QList<int>{ExitNoConnection});
}

TEST_F(MessageStreamTest, tellsAMessageThatIsNoObject)
{
    daemon.sendText("[1]");
    daemon.send({{"n", 1}});
    ASSERT_TRUE(test::waitUntil([this] { return !output.isEmpty(); }));
    EXPECT_EQ(output, QList<QByteArray>{"{\"n\":1}"});
    EXPECT_EQ(problems, QStringList("the service sent a message that is no JSON: not an object"));
}

TEST_F(MessageStreamTest, asksForNoInputWhileTheDaemonDoesNotRead)
{
    daemon.setReadLimit(64 * 1024);
    const QByteArray line = "{\"x\":\"" + QByteArray(MessageStream::maxUnsentBytes * 2, 'x') + "\"}";
    stream->takeInput(line + '\n');
    EXPECT_FALSE(test::waitUntil([this] { return inputsWanted > 0; }, 200ms));
    daemon.setReadLimit(0);
    ASSERT_TRUE(daemon.waitForMessages(1));
    EXPECT_EQ(daemon.received(), QList<QByteArray>{line});
    EXPECT_TRUE(test::waitUntil([this] { return inputsWanted > 0; }));
    EXPECT_EQ(inputsWanted, 1);
}

TEST_F(MessageStreamTest, givesUpWhenTheRestCannotBeSent)
{
    begin(10ms, 50ms);
    daemon.setReadLimit(64 * 1024);
    stream->takeInput("{\"x\":\"" + QByteArray(8 * 1024 * 1024, 'x') + "\"}");
    stream->endInput();
    ASSERT_TRUE(waitForTheEnd());
    EXPECT_EQ(problems, QStringList("the service does not take what is sent to it"));
    EXPECT_EQ(ends, QList<int>{ExitNoConnection});
}

TEST_F(MessageStreamTest, sendsHeartbeatsAndKeepsTheirAnswersBack)
{
    begin(30s);
    client.startHeartbeat(10);
    ASSERT_TRUE(daemon.waitForMessages(2));
    EXPECT_EQ(daemon.message(0)["action"], QJsonValue("heartbeat"));
    daemon.send({{"status", "success"}, {"request-id", daemon.message(0)["request-id"]}});
    daemon.send({{"status", "success"}, {"request-id", "mine"}});
    ASSERT_TRUE(test::waitUntil([this] { return !output.isEmpty(); }));
    EXPECT_EQ(output, QList<QByteArray>{R"({"request-id":"mine","status":"success"})"});
}

TEST_F(MessageStreamTest, sendsNoHeartbeatUnlessToldTo)
{
    EXPECT_FALSE(test::waitUntil([this] { return !daemon.received().isEmpty(); }, 100ms));
}

} // namespace
} // namespace ruvo
