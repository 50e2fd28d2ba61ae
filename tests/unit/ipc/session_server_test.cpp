#include "ipc/session_server.h"

#include "support/connected_pair.h"
#include "support/log_capture.h"
#include "support/pipe_trouble.h"
#include "support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFileInfo>

namespace ruvo {
namespace {

using test::PipeClient;
using test::waitUntil;

class SessionServerTest : public ::testing::Test
{
protected:
    bool acceptsAClient()
    {
        const int before = connections;
        const PipeClient client(name);
        return waitUntil([&] { return connections > before; });
    }
    void count(SessionServer &server)
    {
        QObject::connect(&server, &SessionServer::newConnection, [this] { ++connections; });
    }

    const QString name = test::privatePipeName("session");
    const QString startedLine =
        "INFO Named pipe server started for session 7 : \"" + QString(name).replace('\\', R"(\\)") + '"';
    int connections = 0;
    test::LogCapture log;
};

TEST_F(SessionServerTest, doesNotListenBeforeItIsStarted)
{
    SessionServer server(7, name);
    EXPECT_EQ(server.sessionId(), 7U);
    EXPECT_EQ(server.pipeName(), name);
    EXPECT_FALSE(server.server().isListening());
    EXPECT_EQ(server.server().parent(), &server);
    EXPECT_FALSE(PipeClient(name).isConnected());
}

TEST_F(SessionServerTest, saysWhereItListens)
{
    SessionServer server(7, name);
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.lines(), QStringList{startedLine});
}

TEST_F(SessionServerTest, isOpenToEveryLocalUser)
{
    SessionServer server(7, name);
    ASSERT_TRUE(server.start());
    EXPECT_EQ(server.server().socketOptions(), QLocalServer::WorldAccessOption);
#ifndef Q_OS_WIN
    constexpr auto everybody = QFile::ReadOther | QFile::WriteOther | QFile::ReadGroup | QFile::WriteGroup;
    EXPECT_TRUE(QFileInfo(server.server().fullServerName()).permissions().testFlags(everybody));
#endif
}

TEST_F(SessionServerTest, forwardsEachNewConnectionOnce)
{
    SessionServer server(7, name);
    count(server);
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(acceptsAClient());
    EXPECT_TRUE(acceptsAClient());
    test::processPending();
    EXPECT_EQ(connections, 2);
}

TEST_F(SessionServerTest, doesNothingWhenItIsStartedAgain)
{
    SessionServer server(7, name);
    count(server);
    ASSERT_TRUE(server.start());
    PipeClient early(name);
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.linesWith("started").size(), 1);
    EXPECT_TRUE(waitUntil([this] { return connections == 1; }));
    EXPECT_TRUE(early.isConnected());
}

TEST_F(SessionServerTest, saysWhyItCannotListen)
{
    const test::PipeNameTaken taken(name);
    SessionServer server(7, name);
    EXPECT_FALSE(server.start());
    EXPECT_FALSE(server.server().isListening());
    ASSERT_EQ(log.lines().size(), 1);
#ifdef Q_OS_WIN
    const char *failed = "CreateNamedPipeW: ";
#else
    const char *failed = "QLocalServer::listen: ";
#endif
    EXPECT_THAT(log.lines()[0].toStdString(),
                ::testing::StartsWith(std::string("WARNING Failed to start named pipe for session 7 : \"") + failed));
}

// A client that got hold of what was left would wait for ever.
TEST_F(SessionServerTest, leavesNothingOpenWhenItFailsHalfway)
{
    SessionServer server(7, name);
    {
        const test::PipeNameTaken taken(name, 10);
        ASSERT_FALSE(server.start());
    }
    EXPECT_FALSE(PipeClient(name).isConnected());
    EXPECT_TRUE(server.start());
}

TEST_F(SessionServerTest, saysNothingAtItsEndIfItNeverListened)
{
    {
        SessionServer server(7, name);
    }
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(SessionServerTest, removesItsPipeAtItsEnd)
{
    {
        SessionServer server(7, name);
        ASSERT_TRUE(server.start());
        log.clear();
    }
    EXPECT_EQ(log.lines(), QStringList{"DEBUG Named pipe server stopped for session 7"});
    EXPECT_FALSE(PipeClient(name).isConnected());
}

TEST_F(SessionServerTest, listensAgainAfterItWasClosed)
{
    SessionServer server(7, name);
    count(server);
    ASSERT_TRUE(server.start());
    server.server().close();
    EXPECT_FALSE(server.server().isListening());
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.lines(), (QStringList{startedLine, startedLine}));
    EXPECT_TRUE(acceptsAClient());
    test::processPending();
    EXPECT_EQ(connections, 1) << "its signal is connected once, however often it listens";
}

TEST_F(SessionServerTest, listensAgainAfterItLostAListener)
{
    SessionServer server(7, name);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(test::loseListener(server.server(), name));
    EXPECT_TRUE(server.start());
    count(server);
    EXPECT_TRUE(acceptsAClient());

    // What closed the first one is not held against the second: a needless restart would drop waiting clients.
    EXPECT_EQ(log.linesWith("started").size(), 2);
    EXPECT_TRUE(server.start());
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.linesWith("started").size(), 2);
}

} // namespace
} // namespace ruvo
