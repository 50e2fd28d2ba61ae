#include "transport/socket_wait.h"

#include "windows/support/call_journal.h"
#include "windows/transport/winsock_test.h"

#include <chrono>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = SocketWait::Clock;

class SocketWaitTest : public WinsockTest
{
protected:
    const std::pair<Socket, Socket> m_pair = connectedSockets();
    const SOCKET m_socket = m_pair.first.get();
    const KernelHandle m_stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    SocketWait m_wait{m_stop.get()};
};

TEST_F(SocketWaitTest, endsWithWhatItWaitsFor)
{
    ASSERT_TRUE(m_wait.attach(m_socket, FD_READ | FD_CLOSE));
    ASSERT_EQ(send(m_pair.second.get(), "x", 1, 0), 1);
    EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 10s), NO_ERROR);
    char byte = 0;
    EXPECT_EQ(recv(m_socket, &byte, 1, 0), 1);
    EXPECT_EQ(recv(m_socket, &byte, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK) << "the socket does not block";
    EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 20ms), WSAETIMEDOUT) << "the event was taken";
}

TEST_F(SocketWaitTest, endsAtItsDeadline)
{
    ASSERT_TRUE(m_wait.attach(m_socket, FD_READ));
    const auto start = Clock::now();
    EXPECT_EQ(m_wait.wait(m_socket, start + 100ms), WSAETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 90ms);
    EXPECT_EQ(m_wait.wait(m_socket, start), WSAETIMEDOUT) << "one that has passed";
}

TEST_F(SocketWaitTest, endsWithTheStop)
{
    ASSERT_TRUE(m_wait.attach(m_socket, FD_READ));
    SetEvent(m_stop.get());
    EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 10s), WSAEINTR);
}

TEST_F(SocketWaitTest, doesWithoutAStopEvent)
{
    SocketWait wait(nullptr);
    ASSERT_TRUE(wait.attach(m_socket, FD_READ));
    EXPECT_EQ(wait.wait(m_socket, Clock::now() + 20ms), WSAETIMEDOUT);
}

TEST_F(SocketWaitTest, tellsTheErrorThatAnEventCarries)
{
    const Socket socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    ASSERT_TRUE(m_wait.attach(socket.get(), FD_CONNECT));
    const sockaddr_in nobody = loopbackAddress(closedPort());
    ASSERT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr *>(&nobody), sizeof(nobody)), SOCKET_ERROR);
    ASSERT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    EXPECT_EQ(m_wait.wait(socket.get(), Clock::now() + 10s), WSAECONNREFUSED);
}

TEST_F(SocketWaitTest, leavesADetachedSocketNonBlockingAndUnseen)
{
    ASSERT_TRUE(m_wait.attach(m_socket, FD_READ));
    m_wait.detach(m_socket);
    ASSERT_EQ(send(m_pair.second.get(), "x", 1, 0), 1);
    EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 50ms), WSAETIMEDOUT);
}

TEST_F(SocketWaitTest, refusesWhatIsNoSocket)
{
    EXPECT_FALSE(m_wait.attach(INVALID_SOCKET, FD_READ));
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST_F(SocketWaitTest, hasAnErrorForAnEventThatCouldNotBeMade)
{
    CallJournal journal;
    journal.watch<IMPORT(CreateEventW)>();
    journal.fail("CreateEventW", ERROR_NOT_ENOUGH_MEMORY);
    SocketWait wait(m_stop.get());
    WSASetLastError(NO_ERROR);
    EXPECT_FALSE(wait.attach(m_socket, FD_READ));
    EXPECT_NE(WSAGetLastError(), NO_ERROR) << "or the failure would look like a success";
}

TEST_F(SocketWaitTest, tellsTheErrorOfEachCallThatFails)
{
    CallJournal journal;
    journal.watch<IMPORT(WaitForMultipleObjects)>(FailsWith::minusOne);
    journal.watch<IMPORT(WSAEnumNetworkEvents)>(FailsWith::minusOne);
    ASSERT_TRUE(m_wait.attach(m_socket, FD_READ));
    ASSERT_EQ(send(m_pair.second.get(), "x", 1, 0), 1);
    for (const char *function : {"WaitForMultipleObjects", "WSAEnumNetworkEvents"}) {
        journal.clear();
        journal.fail(function, 1234);
        EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 10s), 1234) << function;
    }
}

} // namespace
} // namespace ruvo::test
