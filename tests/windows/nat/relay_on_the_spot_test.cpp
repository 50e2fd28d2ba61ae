// Who finds the next bytes there already relays them without the way through the completion port.

#include "windows/nat/relay_session_fixture.h"

#include "windows/support/import_redirection.h"

#include <vector>

namespace ruvo::test {
namespace {

constexpr int chunksInATurn = 16;

class RelayOnTheSpotTest : public RelaySessionTest
{
protected:
    static constexpr int chunkSize = 1000;
    static constexpr int chunks = 40;

    /// Starts a relay whose application always has another chunk there at once, until it has said all of them. They
    /// arrive in order.
    Ends relayMuch()
    {
        Ends ends = start();
        const QByteArray sent = pattern(chunks * chunkSize);
        EXPECT_TRUE(receiveBytes(ends.server.get(), sent.size()) == sent);
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; })) << "one receive on each side";
        EXPECT_EQ(ends.relay->bytesToDestination(), static_cast<std::uint64_t>(sent.size()));
        return ends;
    }

    std::atomic<int> m_taken = 0;
    /// At which of the application's chunks the port was asked.
    std::vector<int> m_posts;
    bool m_portRefuses = false;

private:
    const QByteArray m_sent = pattern(chunks * chunkSize);
    /// The application's socket: the first that is received from.
    std::atomic<SOCKET> m_application = INVALID_SOCKET;
    const ImportRedirection<IMPORT(WSARecv)> m_receive{
        [this](SOCKET socket, LPWSABUF room, DWORD rooms, LPDWORD count, auto... rest) -> int {
            SOCKET none = INVALID_SOCKET;
            m_application.compare_exchange_strong(none, socket);
            if (socket != m_application || m_taken == chunks)
                return m_receive.real(socket, room, rooms, count, rest...);
            std::memcpy(room->buf, m_sent.constData() + m_taken * chunkSize, chunkSize);
            *count = chunkSize;
            ++m_taken;
            return 0;
        }};
    // One thread at a time has the turn.
    const ImportRedirection<IMPORT(PostQueuedCompletionStatus)> m_post{
        [this](HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED operation) -> WINBOOL {
            if (operation) {
                m_posts.push_back(m_taken);
                EXPECT_EQ(key, 5u) << "as if Winsock had posted it";
            }
            return (!operation || !m_portRefuses) && m_post.real(port, bytes, key, operation);
        }};
};

TEST_F(RelayOnTheSpotTest, takesOneTurnAfterTheOther)
{
    relayMuch();
    constexpr int turn = 1 + chunksInATurn; // what came first, and what was found there then
    EXPECT_EQ(m_posts, (std::vector<int>{1 + turn, 1 + 2 * turn}));
}

TEST_F(RelayOnTheSpotTest, leavesToASendInFlightWhatASocketHasNoRoomFor)
{
    std::atomic<int> refusals = 0;
    const ImportRedirection<IMPORT(send)> full([&](SOCKET socket, const char *bytes, int size, int flags) {
        if (size != chunkSize)
            return full.real(socket, bytes, size, flags);
        ++refusals;
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    });
    std::atomic<int> sends = 0;
    const ImportRedirection<IMPORT(WSASend)> counted([&](auto... arguments) {
        ++sends;
        return counted.real(arguments...);
    });
    relayMuch();
    EXPECT_EQ(refusals, chunks) << "the first is enough";
    EXPECT_EQ(sends, chunks);
}

TEST_F(RelayOnTheSpotTest, goesOnWhereThePortRefuses)
{
    m_portRefuses = true;
    relayMuch();
    EXPECT_FALSE(m_posts.empty());
}

class RelayThroughThePortTest : public RelaySessionTest
{};

TEST_F(RelayThroughThePortTest, carriesTheSameWhereNothingIsDoneOnTheSpot)
{
    std::atomic<int> posts = 0;
    const ImportRedirection<IMPORT(PostQueuedCompletionStatus)> count(
        [&](HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED operation) {
            posts += operation != nullptr;
            return count.real(port, bytes, key, operation);
        });
    const ImportRedirection<IMPORT(SetFileCompletionNotificationModes)> none([](HANDLE, UCHAR) { return FALSE; });
    const Ends ends = make();
    ASSERT_TRUE(sendAll(ends.application.get(), "early"));
    ends.relay->start();
    EXPECT_EQ(receiveBytes(ends.server.get(), 5), "early");
    const QByteArray sent = sendUntilStalled(ends.server.get());
    EXPECT_TRUE(receiveBytes(ends.application.get(), sent.size()) == sent);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    EXPECT_EQ(posts, 0) << "Winsock posts everything";
}

} // namespace
} // namespace ruvo::test
