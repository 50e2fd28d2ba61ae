#include "ipc/session_server.h"

#include "support/connected_pair.h"
#include "support/log_capture.h"
#include "support/pipe_client.h"
#include "windows/support/import_redirection.h"

#include <windows.h>

#include <gtest/gtest.h>

namespace ruvo {
namespace {

/// Clients that connect and drop in the very instant in which a pipe instance is made.
class SessionServerAttempts : public testing::Test
{
protected:
    int dropping = 0; ///< how many more come
    int waits = 0;    ///< instances that were told to wait for a client
    const test::ImportRedirection<IMPORT(ConnectNamedPipe)> connect{[this](HANDLE pipe, LPOVERLAPPED overlapped) {
        ++waits;
        if (dropping == 0)
            return connect.real(pipe, overlapped);
        --dropping;
        SetLastError(ERROR_NO_DATA);
        return FALSE;
    }};
    const QString name = test::privatePipeName("attempts");
    test::LogCapture log;
    SessionServer server{7, name};
};

TEST_F(SessionServerAttempts, listensAtTheTenthIfNineFail)
{
    dropping = 9;
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(test::PipeClient(name).isConnected());
}

TEST_F(SessionServerAttempts, givesUpAfterTen)
{
    dropping = 100;
    EXPECT_FALSE(server.start());
    EXPECT_EQ(waits, 10);
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_EQ(log.linesWith("WARNING Failed to start named pipe for session 7").size(), 1);
    test::PipeClient client(name);
    EXPECT_EQ(client.socket().error(), QLocalSocket::ServerNotFoundError)
        << "nobody waits at a pipe without a server";

    dropping = 0;
    EXPECT_TRUE(server.start()) << "the next poll finds nothing in its way";
}

} // namespace
} // namespace ruvo
