#include "ruvoctl/one_request.h"

#include "ruvoctl/exit_status.h"
#include "ruvoctl_fake_daemon.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace std::chrono_literals;

class OneRequestTest : public ::testing::Test
{
protected:
    OneRequest &begin(const QJsonObject &request, std::chrono::milliseconds timeout = 30s)
    {
        m_request = std::make_unique<OneRequest>(client, request, timeout);
        QObject::connect(m_request.get(), &OneRequest::output, &client,
                         [this](const QByteArray &line) { output += line; });
        QObject::connect(m_request.get(), &OneRequest::problem, &client,
                         [this](const QString &text) { problems += text; });
        QObject::connect(m_request.get(), &OneRequest::finished, &client, [this](int status) { ends += status; });
        m_request->start();
        return *m_request;
    }
    bool waitForTheEnd()
    {
        return test::waitUntil([this] { return !ends.isEmpty(); });
    }

    test::FakeDaemon daemon;
    PipeClient client{daemon.takeClientSocket()};
    QList<QByteArray> output;
    QStringList problems;
    QList<int> ends;

private:
    std::unique_ptr<OneRequest> m_request;
};

TEST_F(OneRequestTest, printsTheAnswerAndNothingElse)
{
    begin({{"action", "list"}, {"request-id", 7}});
    ASSERT_TRUE(daemon.waitForMessages(1));
    EXPECT_EQ(daemon.received(), QList<QByteArray>{R"({"action":"list","request-id":7})"});

    daemon.send({{"event", "connected"}, {"daemon-version", "2.0.1"}});
    daemon.send({{"status", "error"}, {"request-id", "7"}});
    daemon.send({{"status", "error"}});
    daemon.sendText("{ \"status\": \"stopping\",\n \"request-id\": 7 }");
    daemon.send({{"status", "error"}, {"request-id", 7}});
    ASSERT_TRUE(waitForTheEnd());
    test::processPending();
    EXPECT_EQ(output, QList<QByteArray>{R"({"request-id":7,"status":"stopping"})"});
    EXPECT_EQ(ends, QList<int>{ExitSuccess});
    EXPECT_EQ(problems, QStringList());
}

TEST_F(OneRequestTest, failsForAnErrorAnswer)
{
    begin({{"action", "nothing"}, {"request-id", "x"}});
    daemon.send({{"status", "error"}, {"error", "Unknown action: nothing"}, {"request-id", "x"}});
    ASSERT_TRUE(waitForTheEnd());
    EXPECT_EQ(output, QList<QByteArray>{R"({"error":"Unknown action: nothing","request-id":"x","status":"error"})"});
    EXPECT_EQ(ends, QList<int>{ExitError});
}

TEST_F(OneRequestTest, givesUpWithoutAnAnswer)
{
    begin({{"action", "list"}, {"request-id", "x"}}, 50ms);
    ASSERT_TRUE(waitForTheEnd());
    EXPECT_EQ(problems, QStringList("no answer in time"));
    EXPECT_EQ(ends, QList<int>{ExitNoConnection});
}

TEST_F(OneRequestTest, endsWithTheConnection)
{
    begin({{"action", "list"}, {"request-id", "x"}});
    daemon.disconnectClient();
    ASSERT_TRUE(waitForTheEnd());
    EXPECT_EQ(problems, QStringList("the service closed the connection before it answered"));
    EXPECT_EQ(ends, QList<int>{ExitNoConnection});
}

TEST_F(OneRequestTest, takesAnAnswerThatComesWithTheDisconnect)
{
    begin({{"action", "client-hello"}, {"request-id", "x"}});
    daemon.send({{"status", "restarting"}, {"request-id", "x"}});
    daemon.disconnectClient();
    ASSERT_TRUE(waitForTheEnd());
    test::processPending();
    EXPECT_EQ(problems, QStringList());
    EXPECT_EQ(ends, QList<int>{ExitSuccess});
}

} // namespace
} // namespace ruvo
