// Proxies that refuse, and each call to Winsock failing in turn.

#include "windows/socks5/port_exchange_fixture.h"

#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <mswsock.h>

#include <map>
#include <set>
#include <string>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Step = PortExchangeFailure::Step;
using socks5::ExchangeStep;

class PortExchangeFailureTest : public PortExchangeTest
{
protected:
    /// What a proxy's answers come to: `method` to the greeting, `reply` to the request, then the end of the stream.
    PortExchangeFailure after(const QByteArray &method, const QByteArray &reply = {})
    {
        startProxy([method, reply](ProxyConnection &client) {
            client.receive(3);
            client.send(method);
            if (reply.isEmpty())
                return;
            client.receive(10);
            client.send(reply);
        });
        start(plan(m_proxy->port()));
        return failure();
    }
    PortExchangeFailure failure()
    {
        const PortExchange::Outcome &over = outcome();
        EXPECT_FALSE(over);
        EXPECT_EQ(m_outcomes, 1);
        EXPECT_EQ(m_port.inFlight(), 0);
        EXPECT_TRUE(m_socket == INVALID_SOCKET || isClosed());
        return over ? PortExchangeFailure() : over.error();
    }
};

void expectAnswer(const PortExchangeFailure &failure, ExchangeStep step, bool isCutOff, std::size_t bytes)
{
    EXPECT_EQ(failure.step, Step::Answer);
    EXPECT_EQ(failure.error, NO_ERROR);
    EXPECT_EQ(failure.socks.step, step);
    EXPECT_EQ(failure.socks.isCutOff, isCutOff);
    EXPECT_EQ(failure.socks.bytes.size(), bytes);
}

TEST_F(PortExchangeFailureTest, aRefusedConnectHasWinsocksCode)
{
    const auto begin = std::chrono::steady_clock::now();
    start(plan(closedPort()));
    const PortExchangeFailure refused = failure();
    EXPECT_EQ(refused.step, Step::Connect);
    EXPECT_EQ(refused.error, WSAECONNREFUSED);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s) << "it is known at once";
}

TEST_F(PortExchangeFailureTest, aRefusedMethodComesWithItsBytes)
{
    const PortExchangeFailure refused = after(QByteArray::fromHex("05ff"));
    expectAnswer(refused, ExchangeStep::MethodReply, false, 2);
    EXPECT_EQ(refused.socks.code(), 255);
}

TEST_F(PortExchangeFailureTest, aRefusedRequestComesWithItsBytes)
{
    const PortExchangeFailure refused = after(accepted, QByteArray::fromHex("05050001000000000000"));
    expectAnswer(refused, ExchangeStep::Reply, false, 10);
    EXPECT_EQ(refused.socks.version(), 5);
    EXPECT_EQ(refused.socks.code(), 5);
}

TEST_F(PortExchangeFailureTest, anEndInTheMiddleComesWithWhatCame)
{
    expectAnswer(after(QByteArray::fromHex("05")), ExchangeStep::MethodReply, true, 1);
    expectAnswer(after(accepted, QByteArray::fromHex("05000001")), ExchangeStep::Reply, true, 4);
}

TEST_F(PortExchangeFailureTest, aFailedReceiveIsToldApartFromAnAnswer)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    const PortExchangePtr exchange = start(plan(m_proxy->port()));
    ASSERT_TRUE(runTo(exchange, 3));
    CancelIoEx(reinterpret_cast<HANDLE>(m_socket), nullptr); // as the network would end it
    const PortExchangeFailure failed = failure();
    EXPECT_EQ(failed.step, Step::Receive);
    EXPECT_EQ(failed.error, WSA_OPERATION_ABORTED);
    EXPECT_EQ(failed.socks.step, ExchangeStep::MethodReply);
}

TEST_F(PortExchangeFailureTest, ofAnyCallIsReportedOnceAndLeavesNothing)
{
    CallJournal journal;
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(setsockopt)>(FailsWith::minusOne);
    journal.watch<IMPORT(WSAIoctl)>(FailsWith::minusOne);
    journal.watch<IMPORT(bind)>(FailsWith::minusOne);
    journal.watch<IMPORT(CreateIoCompletionPort)>(FailsWith::zero);
    journal.watch<IMPORT(SetFileCompletionNotificationModes)>(FailsWith::zero);
    journal.watch<IMPORT(WSASend)>(FailsWith::minusOne);
    journal.watch<IMPORT(WSARecv)>(FailsWith::minusOne);
    const std::map<std::string, Step> expected = {
        {"WSASocketW", Step::CreateSocket},
        {"bind", Step::Bind},
        {"CreateIoCompletionPort", Step::Associate},
        {"WSASend", Step::IssueSend},
        {"WSARecv", Step::IssueReceive},
    };
    std::set<std::string> seen;
    std::set<ExchangeStep> steps;
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted);
        client.receive(10);
        client.send(connected);
        client.waitForEnd();
    });
    forEachFailure(journal, WSAENOBUFS, [&] {
        start(plan(m_proxy->port()));
        const PortExchange::Outcome &over = outcome();
        const std::string failed = journal.failed();
        EXPECT_EQ(m_outcomes, 1) << failed;
        EXPECT_EQ(m_port.inFlight(), 0) << failed;
        const auto step = expected.find(failed);
        if (step == expected.end()) {
            EXPECT_TRUE(over) << failed << " does not matter";
        } else {
            ASSERT_FALSE(over) << failed;
            EXPECT_EQ(over.error().step, step->second) << failed;
            EXPECT_EQ(over.error().error, WSAENOBUFS) << failed;
            seen.insert(failed);
            if (step->second == Step::IssueSend || step->second == Step::IssueReceive)
                steps.insert(over.error().socks.step);
            if (step->second == Step::Associate) {
                EXPECT_NE(over.error().socket, INVALID_SOCKET);
                EXPECT_EQ(over.error().port, m_port.handle());
            }
        }
        m_outcome.reset(); // and with it the socket of a connection that stands
        EXPECT_TRUE(isClosed() || failed == "WSASocketW") << failed;
    });
    EXPECT_EQ(seen.size(), expected.size());
    EXPECT_EQ(steps, (std::set<ExchangeStep>{ExchangeStep::Greeting, ExchangeStep::MethodReply, ExchangeStep::Request,
                                             ExchangeStep::Reply}));
}

/// In a process of its own, where ConnectEx has not been asked for yet.
class OwnExchange
{
public:
    OwnExchange()
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
        EXPECT_TRUE(port.open());
    }
    /// The failure that is known at once.
    PortExchangeFailure start()
    {
        std::optional<PortExchange::Outcome> outcome;
        const auto exchange =
            std::make_shared<PortExchange>(port, PortExchangePlan{.peer = {INADDR_LOOPBACK, 9}},
                                           [&](PortExchange::Outcome known) { outcome.emplace(std::move(known)); });
        exchange->start();
        EXPECT_TRUE(outcome && !*outcome);
        EXPECT_EQ(port.inFlight(), 0);
        return outcome && !*outcome ? outcome->error() : PortExchangeFailure();
    }

    CompletionPort port;
};

TEST_IN_OWN_PROCESS(PortExchangeOwnProcess, saysThatThereIsNoConnectEx)
{
    OwnExchange own;
    CallJournal journal;
    journal.watch<IMPORT(WSAIoctl)>(FailsWith::minusOne);
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(closesocket)>(FailsWith::minusOne);
    journal.fail("WSAIoctl", WSAEOPNOTSUPP);
    const PortExchangeFailure failure = own.start();
    EXPECT_EQ(failure.step, Step::FindConnectEx);
    EXPECT_EQ(failure.error, WSAEOPNOTSUPP);
    EXPECT_TRUE(journal.unclosed({"WSASocketW"}, "closesocket").empty());
}

BOOL PASCAL refusingConnectEx(SOCKET, const sockaddr *, int, PVOID, DWORD, LPDWORD, LPOVERLAPPED)
{
    WSASetLastError(WSAENETUNREACH);
    return FALSE;
}

TEST_IN_OWN_PROCESS(PortExchangeOwnProcess, saysThatConnectExRefuses)
{
    OwnExchange own;
    const ImportRedirection<IMPORT(WSAIoctl)> ioctl([](SOCKET, DWORD code, LPVOID, DWORD, LPVOID out, DWORD, LPDWORD,
                                                       LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
        if (code == SIO_GET_EXTENSION_FUNCTION_POINTER)
            *static_cast<LPFN_CONNECTEX *>(out) = refusingConnectEx;
        return 0;
    });
    CallJournal journal;
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(closesocket)>(FailsWith::minusOne);
    const PortExchangeFailure failure = own.start();
    EXPECT_EQ(failure.step, Step::IssueConnect);
    EXPECT_EQ(failure.error, WSAENETUNREACH);
    EXPECT_TRUE(journal.unclosed({"WSASocketW"}, "closesocket").empty());
}

} // namespace
} // namespace ruvo::test
