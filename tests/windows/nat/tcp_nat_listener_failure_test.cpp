// The listener's Winsock calls failing, one after another.

#include "windows/nat/tcp_nat_listener_fixture.h"

#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"
#include "windows/support/import_redirection.h"

#include <atomic>
#include <cstdlib>
#include <map>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpNatListenerFailureTest : public TcpNatListenerTest
{
protected:
    TcpNatListenerFailureTest()
    {
        m_journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(bind)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(getsockname)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(listen)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(closesocket)>(FailsWith::minusOne);
    }

    std::size_t calls(const std::string &function) const
    {
        const std::vector<std::string> lines = m_journal.lines();
        return static_cast<std::size_t>(
            std::ranges::count_if(lines, [&](const std::string &line) { return line.starts_with(function + "("); }));
    }
    /// Starts in vain: `line` is all that is said, and nothing is left.
    void expectFailure(const QString &line)
    {
        EXPECT_FALSE(start());
        EXPECT_EQ(m_log.lines(), QStringList{line});
        EXPECT_TRUE(m_journal.unclosed({"WSASocketW"}, "closesocket").empty());
        EXPECT_EQ(m_port.inFlight(), 0);
        EXPECT_EQ(m_listenPort, 0);
    }

    CallJournal m_journal;
};

TEST_F(TcpNatListenerFailureTest, saysThatItHasNoSocket)
{
    m_journal.fail("WSASocketW", WSAEMFILE);
    expectFailure("CRITICAL [TCP-NAT] Failed to create listener socket: 10024");
}

TEST_F(TcpNatListenerFailureTest, saysThatItCannotBind)
{
    m_journal.fail("bind", WSAEADDRINUSE);
    expectFailure("CRITICAL [TCP-NAT] Failed to bind listener: 10048");
    EXPECT_EQ(calls("bind"), 1u) << "only a missing address may come";
}

TEST_F(TcpNatListenerFailureTest, waitsForANewAdaptersAddress)
{
    m_journal.fail("bind", WSAEADDRNOTAVAIL, 1);
    EXPECT_TRUE(start());
    EXPECT_EQ(calls("bind"), 2u);
    connectClient();
    EXPECT_TRUE(takeAccepted());
}

TEST_F(TcpNatListenerFailureTest, doesNotWaitForAnAddressForEver)
{
    m_journal.fail("bind", WSAEADDRNOTAVAIL);
    const auto begin = std::chrono::steady_clock::now();
    expectFailure("CRITICAL [TCP-NAT] Failed to bind listener: 10049");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_GE(calls("bind"), 10u) << "every 50 ms, on a machine that does other things too";
}

TEST_F(TcpNatListenerFailureTest, saysThatItCannotTellItsPort)
{
    m_journal.fail("getsockname", WSAENOBUFS);
    expectFailure("CRITICAL [TCP-NAT] Failed to get bound port: 10055");
}

TEST_F(TcpNatListenerFailureTest, saysThatItCannotListen)
{
    m_journal.fail("listen", WSAENOBUFS);
    expectFailure("CRITICAL [TCP-NAT] Failed to listen: 10055");
}

TEST_F(TcpNatListenerFailureTest, saysThatItCannotBePutOnThePort)
{
    m_journal.watch<IMPORT(CreateIoCompletionPort)>();
    m_journal.fail("CreateIoCompletionPort", ERROR_NOT_ENOUGH_MEMORY);
    expectFailure("CRITICAL [TCP-NAT] Failed to associate listener with IOCP: 8");
}

TEST_F(TcpNatListenerFailureTest, acceptsLaterWhenItHasNoSocketToAcceptWith)
{
    m_journal.fail("WSASocketW", WSAEMFILE, 2);
    EXPECT_TRUE(start());
    EXPECT_TRUE(m_log.contains("CRITICAL [TCP-NAT] Failed to create accept socket: 10024"));
    EXPECT_EQ(m_port.inFlight(), 0);
    m_listener->ensureAccepting();
    EXPECT_EQ(m_port.inFlight(), 1);
    m_listener->ensureAccepting();
    EXPECT_EQ(m_port.inFlight(), 1) << "there is one already";
    connectClient();
    EXPECT_TRUE(takeAccepted());
}

TEST_F(TcpNatListenerFailureTest, acceptsAgainAfterAnAcceptThatFailed)
{
    std::atomic<SOCKET> first = INVALID_SOCKET;
    const ImportRedirection<IMPORT(listen)> listening([&](SOCKET socket, int backlog) {
        first = socket;
        return listening.real(socket, backlog);
    });
    ASSERT_TRUE(start());
    ASSERT_TRUE(CancelIoEx(reinterpret_cast<HANDLE>(first.load()), nullptr));
    EXPECT_TRUE(waitUntil([this] { return m_log.contains("WARNING [TCP-NAT] AcceptEx completion failed"); }));
    connectClient();
    EXPECT_TRUE(takeAccepted());
    EXPECT_EQ(m_log.linesWith("AcceptEx completion failed").size(), 1);
}

/// Its own attributes are nothing for a template argument.
using Malloc = Import<void *(std::size_t), "malloc">;

TEST_F(TcpNatListenerFailureTest, resetsAClientThatThereIsNoSessionFor)
{
    ASSERT_TRUE(start());
    Client client = connectClient();
    ASSERT_TRUE(takeAccepted());
    resetConnection(client.socket);
    std::atomic<int> refused = 0;
    {
        // The same client port once more is another connection, which gets a session of its own.
        const ImportRedirection<Malloc> none(
            [&, own = GetCurrentThreadId(), next = ImportRedirection<Malloc>::current()](std::size_t size) {
                if (GetCurrentThreadId() == own || size != sizeof(TcpNatSession))
                    return next(size);
                ++refused;
                return static_cast<void *>(nullptr);
            });
        const Socket again = connectFrom(client.natPort);
        ASSERT_TRUE(again);
        EXPECT_EQ(readToEnd(again.get()), Ending::Reset);
    }
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(acceptedCount(), 0u);
    connectClient();
    EXPECT_TRUE(takeAccepted()) << "the next one is served";
}

/// A listener of a process of its own, where AcceptEx has not been asked for yet.
struct OwnListener
{
    OwnListener()
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
        EXPECT_TRUE(port.open());
    }
    bool start()
    {
        std::uint16_t listenPort = 0;
        return listener->initialize(
            INADDR_LOOPBACK, 0, port, [](Socket, const TcpNatSessionPtr &) {}, listenPort);
    }

    LogCapture log;
    CompletionPort port;
    std::shared_ptr<TcpNatListener> listener = std::make_shared<TcpNatListener>();
};

TEST_IN_OWN_PROCESS(TcpNatListenerOwnProcess, saysThatThereIsNoAcceptEx)
{
    OwnListener own;
    CallJournal journal;
    journal.watch<IMPORT(WSAIoctl)>(FailsWith::minusOne);
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(closesocket)>(FailsWith::minusOne);
    journal.fail("WSAIoctl", WSAEOPNOTSUPP);
    EXPECT_FALSE(own.start());
    EXPECT_EQ(own.log.lines(), QStringList{"CRITICAL [TCP-NAT] Failed to load AcceptEx: 10045"});
    EXPECT_TRUE(journal.unclosed({"WSASocketW"}, "closesocket").empty());
}

BOOL PASCAL refusingAcceptEx(SOCKET, SOCKET, PVOID, DWORD, DWORD, DWORD, LPDWORD, LPOVERLAPPED)
{
    WSASetLastError(WSAENOBUFS);
    return FALSE;
}

TEST_IN_OWN_PROCESS(TcpNatListenerOwnProcess, leavesNoAcceptWhenAcceptExRefuses)
{
    OwnListener own;
    const ImportRedirection<IMPORT(WSAIoctl)> ioctl([](SOCKET, DWORD, LPVOID, DWORD, LPVOID out, DWORD, LPDWORD,
                                                       LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
        *static_cast<LPFN_ACCEPTEX *>(out) = refusingAcceptEx;
        return 0;
    });
    CallJournal journal;
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(closesocket)>(FailsWith::minusOne);
    EXPECT_TRUE(own.start());
    EXPECT_EQ(own.log.linesWith("AcceptEx"), QStringList{"WARNING [TCP-NAT] AcceptEx failed: 10055"});
    EXPECT_EQ(own.port.inFlight(), 0);
    EXPECT_EQ(own.listener.use_count(), 1);
    EXPECT_EQ(journal.unclosed({"WSASocketW"}, "closesocket").size(), 1u) << "the listening socket only";
    own.listener->ensureAccepting();
    EXPECT_EQ(own.log.linesWith("AcceptEx").size(), 2) << "tried again";
    own.listener->shutdown();
    EXPECT_TRUE(journal.unclosed({"WSASocketW"}, "closesocket").empty());
}

} // namespace
} // namespace ruvo::test
