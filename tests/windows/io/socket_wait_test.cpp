#include "io/socket_wait.h"

#include "io/socket_options.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/support/call_journal.h"

#include <array>
#include <chrono>
#include <cstring>
#include <thread>

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
    std::array<std::uint8_t, 4> m_room{};
    std::size_t m_count = 99;

    int receive(SOCKET socket, std::chrono::milliseconds time)
    {
        return m_wait.receive(socket, m_room, Clock::now() + time, m_count);
    }
    /// What comes now comes to others, and not into a buffer of long ago.
    void expectNothingInFlight()
    {
        m_room = {};
        ASSERT_EQ(send(m_pair.second.get(), "late", 4, 0), 4);
        std::array<char, 4> read{};
        EXPECT_TRUE(waitUntil([&] { return recv(m_socket, read.data(), 4, 0) == 4; }));
        EXPECT_EQ(m_room, (std::array<std::uint8_t, 4>{}));
    }
};

TEST_F(SocketWaitTest, receivesWhatIsThereAndWhatIsStillToCome)
{
    ASSERT_EQ(send(m_pair.second.get(), "abcdef", 6, 0), 6);
    EXPECT_EQ(receive(m_socket, 10s), NO_ERROR);
    EXPECT_EQ(m_count, 4u);
    EXPECT_EQ(std::memcmp(m_room.data(), "abcd", 4), 0);
    EXPECT_EQ(receive(m_socket, 10s), NO_ERROR);
    EXPECT_EQ(m_count, 2u);
    EXPECT_EQ(std::memcmp(m_room.data(), "ef", 2), 0);
    std::jthread later([this] {
        Sleep(50);
        send(m_pair.second.get(), "g", 1, 0);
    });
    EXPECT_EQ(receive(m_socket, 10s), NO_ERROR);
    EXPECT_EQ(m_count, 1u);
    EXPECT_EQ(m_room[0], 'g');
}

TEST_F(SocketWaitTest, receivesNothingAtTheEndOfTheStream)
{
    ASSERT_EQ(shutdown(m_pair.second.get(), SD_SEND), 0);
    EXPECT_EQ(receive(m_socket, 10s), NO_ERROR);
    EXPECT_EQ(m_count, 0u);
}

TEST_F(SocketWaitTest, receivesNothingAtAnEndThatItWaitsFor)
{
    std::jthread later([this] {
        Sleep(50);
        shutdown(m_pair.second.get(), SD_SEND);
    });
    EXPECT_EQ(receive(m_socket, 10s), NO_ERROR);
    EXPECT_EQ(m_count, 0u);
}

TEST_F(SocketWaitTest, takesItsReceiveBackAtTheDeadline)
{
    ASSERT_TRUE(setNonBlocking(m_socket));
    const auto start = Clock::now();
    EXPECT_EQ(receive(m_socket, 100ms), WSAETIMEDOUT);
    EXPECT_GE(Clock::now() - start, 90ms);
    expectNothingInFlight();
}

TEST_F(SocketWaitTest, takesItsReceiveBackOnTheStop)
{
    ASSERT_TRUE(setNonBlocking(m_socket));
    SetEvent(m_stop.get());
    EXPECT_EQ(receive(m_socket, 10s), WSAEINTR);
    expectNothingInFlight();
}

TEST_F(SocketWaitTest, takesItsReceiveBackWhenItCannotWait)
{
    ASSERT_TRUE(setNonBlocking(m_socket));
    {
        CallJournal journal;
        journal.watch<IMPORT(WaitForMultipleObjects)>(FailsWith::minusOne);
        journal.fail("WaitForMultipleObjects", 1234);
        EXPECT_EQ(receive(m_socket, 10s), 1234);
    }
    expectNothingInFlight();
}

TEST_F(SocketWaitTest, tellsHowAReceiveFailed)
{
    CallJournal journal;
    journal.watch<IMPORT(WSARecv)>(FailsWith::minusOne);
    journal.fail("WSARecv", WSAENOBUFS);
    EXPECT_EQ(receive(m_socket, 10s), WSAENOBUFS);
}

TEST_F(SocketWaitTest, tellsHowAReceiveInFlightFailed)
{
    CallJournal journal;
    journal.watch<IMPORT(WSAGetOverlappedResult)>(FailsWith::zero);
    journal.fail("WSAGetOverlappedResult", WSAECONNRESET);
    std::jthread later([this] {
        Sleep(50);
        send(m_pair.second.get(), "x", 1, 0);
    });
    EXPECT_EQ(receive(m_socket, 10s), WSAECONNRESET);
}

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
    EXPECT_TRUE(m_wait.detach(m_socket));
    char byte = 0;
    EXPECT_EQ(recv(m_socket, &byte, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    ASSERT_EQ(send(m_pair.second.get(), "x", 1, 0), 1);
    EXPECT_EQ(m_wait.wait(m_socket, Clock::now() + 50ms), WSAETIMEDOUT);
}

TEST_F(SocketWaitTest, refusesWhatIsNoSocket)
{
    EXPECT_FALSE(m_wait.attach(INVALID_SOCKET, FD_READ));
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_FALSE(m_wait.detach(INVALID_SOCKET));
    EXPECT_EQ(receive(INVALID_SOCKET, 10s), WSAENOTSOCK);
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
