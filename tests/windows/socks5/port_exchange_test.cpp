#include "windows/socks5/port_exchange_fixture.h"

#include "windows/support/call_journal.h"
#include "windows/support/signal.h"

#include <mstcpip.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Step = PortExchangeFailure::Step;

/// What the proxy's end says next on an established connection.
QByteArray read(SOCKET socket, qsizetype count)
{
    const DWORD timeout = 10000;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    QByteArray bytes;
    while (bytes.size() < count) {
        char block[256];
        const int received = recv(socket, block, static_cast<int>(count - bytes.size()), 0);
        if (received <= 0)
            break;
        bytes.append(block, received);
    }
    return bytes;
}

TEST_F(PortExchangeTest, asksTheProxyAndLeavesWhatFollowsTheReply)
{
    QByteArray asked;
    startProxy([&](ProxyConnection &client) {
        asked = client.receive(3);
        client.send(accepted);
        asked += client.receive(10);
        client.send(connected + "220 ready");
        client.waitForEnd();
    });
    const PortExchangePtr exchange = start(plan(m_proxy->port()));
    PortExchange::Outcome &done = outcome();
    ASSERT_TRUE(done);
    EXPECT_EQ(asked, greeting + request);
    EXPECT_EQ(done->bound, (Endpoint{0x7F000001, 0x1234}));
    EXPECT_EQ(exchange->stage(), 5);
    EXPECT_EQ(m_port.inFlight(), 0);
    EXPECT_EQ(read(done->socket.get(), 9), "220 ready");
}

TEST_F(PortExchangeTest, givesTheSocketAsItIsOnThePort)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    start({.peer = {INADDR_LOOPBACK, m_proxy->port()}});
    PortExchange::Outcome &done = outcome();
    ASSERT_TRUE(done);
    EXPECT_TRUE(done->skipsPort);
    EXPECT_FALSE(m_port.associate(done->socket.get(), CompletionKey::RelayReceive)) << "once is enough";
    sockaddr_in peer{};
    int size = sizeof(peer);
    EXPECT_EQ(getpeername(done->socket.get(), reinterpret_cast<sockaddr *>(&peer), &size), 0)
        << "its context has been updated";
    EXPECT_EQ(ntohs(peer.sin_port), m_proxy->port());
}

TEST_F(PortExchangeTest, withoutARequestSaysNothing)
{
    std::promise<QByteArray> heard;
    startProxy([&](ProxyConnection &client) { heard.set_value(client.receive(1)); });
    start({.peer = {INADDR_LOOPBACK, m_proxy->port()}});
    ASSERT_TRUE(outcome());
    EXPECT_EQ(outcome()->bound, std::nullopt);
    m_outcome.reset(); // and the socket with it
    EXPECT_EQ(heard.get_future().get(), "");
}

TEST_F(PortExchangeTest, withAnEmptyRequestIsOverAfterTheMethod)
{
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted + "more");
        client.waitForEnd();
    });
    start({.peer = {INADDR_LOOPBACK, m_proxy->port()}, .request = socks5::Bytes()});
    ASSERT_TRUE(outcome());
    EXPECT_EQ(read(outcome()->socket.get(), 4), "more");
}

TEST_F(PortExchangeTest, takesAnswersByteByByte)
{
    const QByteArray nameReply = QByteArray::fromHex("0500000309") + "localhost" + QByteArray::fromHex("0050");
    startProxy([&](ProxyConnection &client) {
        client.receive(3);
        for (const char byte : accepted) {
            client.send(QByteArray(1, byte));
            std::this_thread::sleep_for(2ms); // so that they arrive one by one
        }
        client.receive(10);
        for (const char byte : nameReply + "!") {
            client.send(QByteArray(1, byte));
            std::this_thread::sleep_for(2ms);
        }
        client.waitForEnd();
    });
    start(plan(m_proxy->port()));
    ASSERT_TRUE(outcome());
    EXPECT_EQ(read(outcome()->socket.get(), 1), "!");
}

TEST_F(PortExchangeTest, preparesTheSocketBeforeItIsBound)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    CallJournal journal;
    journal.watch<IMPORT(setsockopt)>(FailsWith::minusOne);
    journal.watch<IMPORT(bind)>(FailsWith::minusOne);
    bool wasBound = true;
    PortExchangePlan direct{.peer = {INADDR_LOOPBACK, m_proxy->port()}, .noDelay = true};
    direct.prepare = [&](SOCKET socket) { wasBound = boundTo(socket).sin_port != 0; };
    start(std::move(direct));
    ASSERT_TRUE(outcome());
    EXPECT_FALSE(wasBound);
    const std::vector<std::string> lines = journal.lines();
    const auto contains = [](const char *text) {
        return [text](const std::string &line) { return line.find(text) != std::string::npos; };
    };
    const auto bound = std::ranges::find_if(lines, contains("bind("));
    EXPECT_NE(std::find_if(lines.begin(), bound, contains(", 12295, ")), bound) << "SO_REUSE_UNICASTPORT";
    EXPECT_NE(std::find_if(lines.begin(), bound, contains(", 6, 1, ")), bound) << "TCP_NODELAY";
    EXPECT_EQ(std::ranges::find_if(lines, contains(", 4097, ")), lines.end()) << "1 MiB is for the proxy";
}

TEST_F(PortExchangeTest, givesTheWayToTheProxyOneMebibyteEachWay)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    std::vector<int> sizes;
    const ImportRedirection<IMPORT(setsockopt)> set(
        [&](SOCKET socket, int level, int name, const char *value, int size) -> int {
            if (level == SOL_SOCKET && (name == SO_SNDBUF || name == SO_RCVBUF))
                sizes.push_back(*reinterpret_cast<const int *>(value));
            return set.real(socket, level, name, value, size);
        });
    const PortExchangePtr exchange = start(plan(m_proxy->port()));
    EXPECT_EQ(sizes, (std::vector<int>{0x100000, 0x100000}));
    exchange->cancel();
}

TEST_F(PortExchangeTest, doesNotRepeatItselfOnThisMachineOnly)
{
    std::vector<UCHAR> repetitions;
    const ImportRedirection<IMPORT(WSAIoctl)> ioctl([&](SOCKET socket, DWORD code, LPVOID in, DWORD size, LPVOID out,
                                                        DWORD outSize, LPDWORD count, LPWSAOVERLAPPED operation,
                                                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) -> int {
        if (code != SIO_TCP_INITIAL_RTO)
            return ioctl.real(socket, code, in, size, out, outSize, count, operation, routine);
        repetitions.push_back(static_cast<TCP_INITIAL_RTO_PARAMETERS *>(in)->MaxSynRetransmissions);
        return 0;
    });
    start({.peer = {0x7F123456, closedPort()}})->cancel();
    EXPECT_EQ(repetitions, std::vector<UCHAR>{TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS});
    start({.peer = {0xC0000201, 9}})->cancel();
    EXPECT_EQ(repetitions.size(), 1u);
}

TEST_F(PortExchangeTest, knowsWhenTheMethodWasAcceptedHoweverItEndsAndWhenever)
{
    for (const QByteArray &reply : {connected, QByteArray::fromHex("05050001000000000000"), QByteArray()}) {
        Signal isAsked;
        Signal mayAnswer;
        startProxy([&](ProxyConnection &client) {
            client.receive(3);
            client.send(accepted);
            client.receive(10);
            isAsked.set();
            mayAnswer.wait();
            client.send(reply);
            client.shutDown();
            client.waitForEnd();
        });
        const SteadyTime begin = steadyNow();
        const PortExchangePtr exchange = start(plan(m_proxy->port()));
        EXPECT_TRUE(runTo(exchange, 5));
        EXPECT_TRUE(isAsked.wait());
        const SteadyTime asked = steadyNow();
        mayAnswer.set();
        const PortExchange::Outcome &ended = outcome();
        EXPECT_EQ(ended.has_value(), reply == connected);
        const std::optional<SteadyTime> acceptedAt = ended ? ended->acceptedAt : ended.error().acceptedAt;
        ASSERT_TRUE(acceptedAt);
        EXPECT_GE(*acceptedAt, begin);
        EXPECT_LE(*acceptedAt, asked);
        m_outcome.reset(); // ends the connection, which the proxy waits for
        m_proxy.reset();
    }
}

TEST_F(PortExchangeTest, goesThroughTheStagesInOrder)
{
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted);
        client.receive(10);
        client.send(connected);
        client.waitForEnd();
    });
    // Everything is posted then, so that each stage is seen.
    CallJournal journal;
    journal.watch<IMPORT(SetFileCompletionNotificationModes)>(FailsWith::zero);
    journal.fail("SetFileCompletionNotificationModes", ERROR_NOT_SUPPORTED);
    const PortExchangePtr exchange = start(plan(m_proxy->port()));
    EXPECT_EQ(exchange->stage(), PortExchange::connectingStage);
    for (const int stage : {2, 3, 4, 5})
        EXPECT_TRUE(runTo(exchange, stage)) << stage;
    ASSERT_TRUE(outcome());
    EXPECT_FALSE(outcome()->skipsPort);
    EXPECT_EQ(m_outcomes, 1);
}

/// An exchange that is ended by its owner, wherever it stands.
class PortExchangeCancel : public PortExchangeTest, public ::testing::WithParamInterface<int>
{
protected:
    /// The proxy falls silent where the exchange is to stop.
    PortExchangePtr startUpTo(int stage, PortExchangePlan plan)
    {
        m_journal.watch<IMPORT(SetFileCompletionNotificationModes)>(FailsWith::zero);
        m_journal.fail("SetFileCompletionNotificationModes", ERROR_NOT_SUPPORTED);
        PortExchangePtr exchange = start(std::move(plan));
        EXPECT_TRUE(runTo(exchange, stage));
        return exchange;
    }
    void startSilentProxy(int stage)
    {
        startProxy([stage](ProxyConnection &client) {
            client.receive(3);
            if (stage > 3)
                client.send(accepted);
            client.waitForEnd();
        });
    }

    CallJournal m_journal;
};

TEST_P(PortExchangeCancel, neverCallsBack)
{
    startSilentProxy(GetParam());
    const PortExchangePtr exchange = startUpTo(GetParam(), plan(m_proxy->port()));
    EXPECT_TRUE(exchange->cancel());
    expectGone();
    EXPECT_FALSE(exchange->cancel()) << "once";
}

TEST_P(PortExchangeCancel, isGoneWithTheLastCompletionEvenIfNobodyHoldsIt)
{
    startSilentProxy(GetParam());
    std::weak_ptr<PortExchange> gone;
    {
        const PortExchangePtr exchange = startUpTo(GetParam(), plan(m_proxy->port()));
        exchange->cancel();
        gone = exchange;
    }
    expectGone();
    EXPECT_TRUE(gone.expired());
}

INSTANTIATE_TEST_SUITE_P(AtStage, PortExchangeCancel, ::testing::Values(1, 2, 3, 4, 5));

TEST_F(PortExchangeTest, canBeCancelledWhileNobodyAnswersTheConnect)
{
    const MutePort mute;
    const PortExchangePtr exchange = start(plan(mute.number()));
    EXPECT_EQ(m_port.runOne(100ms), CompletionPort::Outcome::Nothing);
    EXPECT_TRUE(exchange->cancel());
    expectGone();
}

TEST_F(PortExchangeTest, doesNothingIfItIsCancelledBeforeItStarts)
{
    CallJournal journal;
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    const PortExchangePtr exchange = make(plan(9));
    EXPECT_TRUE(exchange->cancel());
    exchange->start();
    EXPECT_TRUE(journal.lines().empty());
    EXPECT_FALSE(m_outcome);
}

TEST_F(PortExchangeTest, cancelComesTooLateForAnOutcomeAndDoesNotWaitForIt)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    PortExchangePtr exchange;
    std::optional<bool> wasCancelled;
    PortExchangePlan direct{.peer = {INADDR_LOOPBACK, m_proxy->port()}};
    exchange = std::make_shared<PortExchange>(m_port, std::move(direct), [&](PortExchange::Outcome outcome) {
        std::jthread([&] { wasCancelled = exchange->cancel(); }).join(); // another thread, while this one is in here
        m_outcome.emplace(std::move(outcome));
    });
    exchange->start();
    EXPECT_TRUE(outcome());
    EXPECT_EQ(wasCancelled, false);
}

TEST_F(PortExchangeTest, isEitherCancelledOrOverWhateverTheMoment)
{
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted);
        client.receive(10);
        client.send(connected);
        client.waitForEnd();
    });
    std::atomic<bool> stop = false;
    std::jthread worker([&] {
        while (!stop)
            m_port.runOne(20ms);
    });
    int cancelled = 0;
    for (int round = 0; round < 300; ++round) {
        std::atomic<int> outcomes = 0;
        const auto exchange =
            std::make_shared<PortExchange>(m_port, plan(m_proxy->port()), [&](PortExchange::Outcome) { ++outcomes; });
        exchange->start();
        std::this_thread::sleep_for(std::chrono::microseconds(round * 10));
        const bool wasCancelled = exchange->cancel();
        cancelled += wasCancelled;
        ASSERT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; }));
        ASSERT_EQ(outcomes, wasCancelled ? 0 : 1) << round;
    }
    stop = true;
    RecordProperty("cancelled", cancelled);
}

/// An exchange that takes too long.
class PortExchangeExpiry : public PortExchangeTest
{
protected:
    static constexpr SteadyTime deadline{1000s};

    void expectExpiry(std::uint16_t port, int stage, Step step)
    {
        PortExchangePlan limited = plan(port);
        limited.deadline = deadline;
        const PortExchangePtr exchange = start(std::move(limited));
        ASSERT_TRUE(runTo(exchange, stage));
        exchange->expireIfOverdue(deadline - 1ns);
        EXPECT_FALSE(m_outcome);
        exchange->expireIfOverdue(deadline);
        ASSERT_TRUE(m_outcome) << "right there";
        ASSERT_FALSE(*m_outcome);
        EXPECT_EQ(m_outcome->error().step, step);
        EXPECT_EQ(m_outcome->error().error, WSAETIMEDOUT);
        if (stage > PortExchange::connectingStage) {
            EXPECT_EQ(static_cast<int>(m_outcome->error().socks.step), stage);
        }
        exchange->expireIfOverdue(deadline);
        EXPECT_EQ(m_outcomes, 1);
        EXPECT_FALSE(exchange->cancel());
        EXPECT_TRUE(drain());
        EXPECT_TRUE(isClosed());
    }
};

TEST_F(PortExchangeExpiry, endsAConnectThatNobodyAnswers)
{
    const MutePort mute;
    expectExpiry(mute.number(), 1, Step::Connect);
}

TEST_F(PortExchangeExpiry, endsTheWaitForTheMethod)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    expectExpiry(m_proxy->port(), 3, Step::Receive);
}

TEST_F(PortExchangeExpiry, endsTheWaitForTheReply)
{
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted);
        client.waitForEnd();
    });
    expectExpiry(m_proxy->port(), 5, Step::Receive);
}

TEST_F(PortExchangeExpiry, doesNotTouchOneThatIsOver)
{
    const PortExchangePtr exchange = start({.peer = {INADDR_LOOPBACK, closedPort()}});
    outcome();
    exchange->expireIfOverdue(SteadyTime::max());
    EXPECT_EQ(m_outcomes, 1);
}

} // namespace
} // namespace ruvo::test
