// Bytes that are there already are relayed by whoever finds them, not on the way through the completion port.

#include "windows/nat/relay_session_fixture.h"

#include "windows/support/import_redirection.h"

#include <future>

namespace ruvo::test {
namespace {

constexpr std::uint64_t chunk = 0x10000;
constexpr int chunksInATurn = 16;

class RelayOnTheSpotTest : public RelaySessionTest
{
protected:
    /// Counts this thread's receives on relays.
    std::atomic<int> m_receives = 0;
    const DWORD m_thread = GetCurrentThreadId();
    const ImportRedirection<IMPORT(WSARecv)> m_countReceives{[this](auto... arguments) {
        if (GetCurrentThreadId() == m_thread)
            ++m_receives;
        return m_countReceives.real(arguments...);
    }};

    /// Starts a relay whose application has sent more than a turn's chunks; all of it arrives.
    void relayMuch()
    {
        const Ends ends = make();
        const QByteArray sent = sendUntilStalled(ends.application.get());
        ASSERT_GT(static_cast<std::uint64_t>(sent.size()), (chunksInATurn + 4) * chunk);
        auto read = std::async(std::launch::async, [&] { return receiveBytes(ends.server.get(), sent.size()); });
        ends.relay->start();
        EXPECT_TRUE(read.get() == sent);
        EXPECT_EQ(ends.relay->bytesToDestination(), static_cast<std::uint64_t>(sent.size()));
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; })) << "one receive on each side";
    }
};

TEST_F(RelayOnTheSpotTest, relaysWhatIsThereWithoutAWorker)
{
    std::atomic<int> sends = 0;
    const ImportRedirection<IMPORT(send)> countSends([&](SOCKET socket, const char *bytes, int size, int flags) {
        if (GetCurrentThreadId() == m_thread)
            ++sends;
        return countSends.real(socket, bytes, size, flags);
    });
    const Ends ends = make();
    ASSERT_TRUE(sendAll(ends.application.get(), "hello"));
    const int before = sends;
    ends.relay->start();
    EXPECT_EQ(sends - before, 1);
    EXPECT_EQ(receiveBytes(ends.server.get(), 5), "hello");
}

TEST_F(RelayOnTheSpotTest, leavesTheRestToAWorkerAfterItsTurn)
{
    std::atomic<int> posted = 0;
    const ImportRedirection<IMPORT(PostQueuedCompletionStatus)> countPosts(
        [&](HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED operation) {
            posted += operation != nullptr;
            return countPosts.real(port, bytes, key, operation);
        });
    relayMuch();
    EXPECT_GE(posted, 1);
    EXPECT_LE(m_receives, chunksInATurn + 1 + 1) << "the turn, the chunk that is handed over, the server's receive";
}

TEST_F(RelayOnTheSpotTest, goesOnWhereItCannotHandOver)
{
    const ImportRedirection<IMPORT(PostQueuedCompletionStatus)> none(
        [&](HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED operation) -> WINBOOL {
            return !operation && none.real(port, bytes, key, operation);
        });
    relayMuch();
}

TEST_F(RelayOnTheSpotTest, takesTheWayThroughThePortWhereItHasTo)
{
    const ImportRedirection<IMPORT(SetFileCompletionNotificationModes)> none([](HANDLE, UCHAR) { return FALSE; });
    relayMuch();
    EXPECT_EQ(m_receives, 2) << "one on each side, at the start";
}

} // namespace
} // namespace ruvo::test
