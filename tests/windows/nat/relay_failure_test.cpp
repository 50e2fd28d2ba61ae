// A relay's Winsock calls failing: what is said, and that both ends are told.

#include "windows/nat/relay_session_fixture.h"

#include "windows/support/call_journal.h"

#include <future>

namespace ruvo::test {
namespace {

class RelayFailureTest : public RelaySessionTest
{
protected:
    /// Both connections are cut and the relay is gone; `lines` is all that was said.
    void expectCut(Ends &ends, const QStringList &lines = {})
    {
        ends.relay.reset();
        EXPECT_TRUE(waitForClosed(1)) << m_closed << " closed, " << m_port.inFlight() << " in flight";
        EXPECT_EQ(readToEnd(ends.application.get()), Ending::Reset);
        EXPECT_EQ(readToEnd(ends.server.get()), Ending::Reset);
        EXPECT_EQ(m_log.lines(), lines);
        EXPECT_EQ(m_table.size(), 0u);
    }
    /// Of what the workers call; the test's own calls reach Winsock.
    template<typename Import>
    static auto onWorkers(std::function<typename Import::Function> replacement)
    {
        return std::make_unique<ImportRedirection<Import>>([replacement, next = ImportRedirection<Import>::current(),
                                                            own = GetCurrentThreadId()](auto... arguments) {
            return GetCurrentThreadId() == own ? next(arguments...) : replacement(arguments...);
        });
    }
    static std::function<decltype(send)> sendFailingWith(int error)
    {
        return [error](SOCKET, const char *, int, int) {
            WSASetLastError(error);
            return SOCKET_ERROR;
        };
    }
};

TEST_F(RelayFailureTest, saysWhichSocketCannotBePutOnThePort)
{
    const char *const lines[] = {"WARNING [TCP-NAT-IOCP] Failed to associate client socket with IOCP: 87",
                                 "WARNING [TCP-NAT-IOCP] Failed to associate dest socket with IOCP: 87"};
    for (std::size_t nth = 1; nth <= 2; ++nth) {
        Ends ends = make();
        {
            CallJournal journal;
            journal.watch<IMPORT(CreateIoCompletionPort)>();
            journal.fail("CreateIoCompletionPort", ERROR_INVALID_PARAMETER, nth);
            ends.relay->start();
        }
        m_closed = 1;
        expectCut(ends, {lines[nth - 1]});
        m_log.clear();
    }
}

TEST_F(RelayFailureTest, saysWhichReceiveFailed)
{
    const char *const lines[] = {"WARNING [TCP-NAT-IOCP] WSARecv (client) failed: 10055",
                                 "WARNING [TCP-NAT-IOCP] WSARecv (dest) failed: 10055"};
    for (std::size_t nth = 1; nth <= 2; ++nth) {
        m_closed = 0;
        Ends ends = make();
        {
            CallJournal journal;
            journal.watch<IMPORT(WSARecv)>(FailsWith::minusOne);
            journal.fail("WSARecv", WSAENOBUFS, nth);
            ends.relay->start();
        }
        expectCut(ends, {lines[nth - 1]});
        m_log.clear();
    }
}

TEST_F(RelayFailureTest, isSilentAboutConnectionsThatHaveEnded)
{
    for (const DWORD error : std::vector<DWORD>{WSAECONNABORTED, WSAECONNRESET, WSAESHUTDOWN}) {
        m_closed = 0;
        Ends ends = make();
        {
            CallJournal journal;
            journal.watch<IMPORT(WSARecv)>(FailsWith::minusOne);
            journal.fail("WSARecv", error, 1);
            ends.relay->start();
        }
        expectCut(ends);
    }
}

TEST_F(RelayFailureTest, endsWhenALaterReceiveFails)
{
    Ends ends = start();
    const auto receive = onWorkers<IMPORT(WSARecv)>(
        [](SOCKET, LPWSABUF, DWORD, LPDWORD, LPDWORD, LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
            WSASetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        });
    ASSERT_TRUE(sendAll(ends.server.get(), "hello"));
    expectCut(ends, {"WARNING [TCP-NAT-IOCP] WSARecv (dest) failed: 10055"});
}

TEST_F(RelayFailureTest, endsWhenASendFails)
{
    Ends ends = start();
    const auto failing = onWorkers<IMPORT(send)>(sendFailingWith(WSAENOBUFS));
    ASSERT_TRUE(sendAll(ends.application.get(), "hello"));
    expectCut(ends);
}

TEST_F(RelayFailureTest, endsWhenTheRestOfAChunkCannotBeSent)
{
    Ends ends = start();
    const auto failing = onWorkers<IMPORT(send)>(sendFailingWith(WSAEWOULDBLOCK));
    const auto alsoFailing = onWorkers<IMPORT(WSASend)>(
        [](SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
            WSASetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        });
    ASSERT_TRUE(sendAll(ends.application.get(), "hello"));
    expectCut(ends);
}

TEST_F(RelayFailureTest, goesOnByItsSendOperationWhileASocketWouldBlock)
{
    Ends ends = start();
    const QByteArray bytes = pattern(300'000);
    {
        const auto blocked = onWorkers<IMPORT(send)>(sendFailingWith(WSAEWOULDBLOCK));
        for (qsizetype offset = 0; offset < bytes.size(); offset += 10'000) {
            ASSERT_TRUE(sendAll(ends.application.get(), bytes.mid(offset, 10'000)));
            EXPECT_TRUE(receiveBytes(ends.server.get(), 10'000) == bytes.mid(offset, 10'000));
        }
    }
    ASSERT_TRUE(sendAll(ends.application.get(), "direct again"));
    EXPECT_EQ(receiveBytes(ends.server.get(), 12), "direct again");
    EXPECT_EQ(m_closed, 0);
}

} // namespace
} // namespace ruvo::test
