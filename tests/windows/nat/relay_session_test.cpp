#include "windows/nat/relay_session_fixture.h"

#include "common/steady_clock.h"

#include <future>
#include <thread>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

TEST_F(RelaySessionTest, carriesEverythingBothWaysInOrder)
{
    const Ends ends = start();
    std::uint64_t upload = 0;
    std::uint64_t download = 0;
    for (const qsizetype size : std::vector<qsizetype>{1, 2, 1000, 65535, 65536, 65537, 1'000'000, 6'000'000}) {
        const QByteArray up = pattern(size, 1);
        const QByteArray down = pattern(size + 1, 2);
        auto sentUp = std::async(std::launch::async, [&] { return sendAll(ends.application.get(), up); });
        auto sentDown = std::async(std::launch::async, [&] { return sendAll(ends.server.get(), down); });
        auto gotUp = std::async(std::launch::async, [&] { return receiveBytes(ends.server.get(), up.size()); });
        EXPECT_TRUE(receiveBytes(ends.application.get(), down.size()) == down) << size;
        EXPECT_TRUE(gotUp.get() == up) << size;
        EXPECT_TRUE(sentUp.get());
        EXPECT_TRUE(sentDown.get());
        upload += static_cast<std::uint64_t>(up.size());
        download += static_cast<std::uint64_t>(down.size());
    }
    EXPECT_EQ(ends.relay->bytesToDestination(), upload);
    EXPECT_EQ(ends.relay->bytesToClient(), download);
    EXPECT_EQ(m_table.size(), 1u);
    EXPECT_EQ(m_closed, 0);
    EXPECT_LE(m_port.inFlight(), 2) << "one receive on each side";
}

TEST_F(RelaySessionTest, carriesWhatCameBeforeItsStart)
{
    const Ends ends = make();
    ASSERT_TRUE(sendAll(ends.server.get(), "220 ready"));
    ends.relay->start();
    EXPECT_EQ(receiveBytes(ends.application.get(), 9), "220 ready");
}

// Windows cancels what a thread has in flight when that thread ends, unless its completions go to a port.
TEST_F(RelaySessionTest, outlivesTheThreadThatStartedIt)
{
    const Ends ends = make();
    std::thread([&] { ends.relay->start(); }).join();
    EXPECT_EQ(m_port.inFlight(), 2);
    ASSERT_TRUE(sendAll(ends.application.get(), "question"));
    EXPECT_EQ(receiveBytes(ends.server.get(), 8), "question");
    ASSERT_TRUE(sendAll(ends.server.get(), "answer"));
    EXPECT_EQ(receiveBytes(ends.application.get(), 6), "answer");
    EXPECT_EQ(m_closed, 0);
}

TEST_F(RelaySessionTest, holdsUpASenderWhoseReaderStallsAndLosesNothing)
{
    const Ends ends = start();
    const QByteArray sent = sendUntilStalled(ends.server.get());
    ASSERT_LT(sent.size(), 60'000'000) << "it never stalled";
    EXPECT_EQ(m_port.inFlight(), 2) << "a receive from the application, and what waits for it";
    ASSERT_EQ(shutdown(ends.server.get(), SD_SEND), 0);
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.application.get(), &received), Ending::Proper);
    EXPECT_EQ(received.size(), sent.size());
    EXPECT_TRUE(received == sent);
}

TEST_F(RelaySessionTest, holdsNoWorkerForReadersThatStall)
{
    std::vector<Ends> stalled;
    std::vector<std::future<QByteArray>> sending;
    for (unsigned i = 0; i < 2 * workerCount; ++i) {
        stalled.push_back(start());
        sending.push_back(std::async(
            std::launch::async, [server = stalled.back().server.get(), i] { return sendUntilStalled(server, i); }));
    }
    std::vector<QByteArray> sent;
    for (auto &future : sending)
        sent.push_back(future.get());

    const Ends live = start();
    const QByteArray bytes = pattern(20'000'000);
    auto sender = std::async(std::launch::async, [&] { return sendAll(live.server.get(), bytes); });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(receiveBytes(live.application.get(), bytes.size()) == bytes);
    EXPECT_TRUE(sender.get());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);

    for (std::size_t i = 0; i < stalled.size(); ++i) {
        ASSERT_EQ(shutdown(stalled[i].server.get(), SD_SEND), 0);
        QByteArray received;
        EXPECT_EQ(readToEnd(stalled[i].application.get(), &received), Ending::Proper);
        EXPECT_TRUE(received == sent[i]) << i;
    }
}

TEST_F(RelaySessionTest, resetsBothEndsWhenItIsAborted)
{
    const Ends ends = start();
    const QByteArray sent = sendUntilStalled(ends.server.get()); // a send in flight, beside a receive
    ends.relay->abort();
    ends.relay->abort();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    const_cast<RelaySessionPtr &>(ends.relay).reset();
    EXPECT_EQ(readToEnd(ends.application.get()), Ending::Reset);
    EXPECT_EQ(readToEnd(ends.server.get()), Ending::Reset);
    EXPECT_TRUE(waitForClosed(1)) << m_closed;
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(RelaySessionTest, isNotOverdueBeforeADirectionHasEnded)
{
    const Ends ends = start();
    ends.relay->closeIfOverdue(steadyNow() + 10 * RelaySession::endingTime);
    ASSERT_TRUE(sendAll(ends.server.get(), "hello"));
    EXPECT_EQ(receiveBytes(ends.application.get(), 5), "hello");
    EXPECT_EQ(m_closed, 0);
}

TEST_F(RelaySessionTest, isClosedWhenItsSecondDirectionDoesNotEnd)
{
    Ends ends = start();
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    EXPECT_EQ(readToEnd(ends.server.get()), Ending::Proper);
    const SteadyTime now = steadyNow();
    ends.relay->closeIfOverdue(now + RelaySession::endingTime - std::chrono::seconds(20));
    EXPECT_EQ(m_closed, 0);
    m_table.closeOverdue();
    EXPECT_EQ(m_closed, 0) << "30 s are not over";
    ends.relay->closeIfOverdue(now + RelaySession::endingTime);
    ends.relay.reset();
    EXPECT_TRUE(waitForClosed(1));
    EXPECT_TRUE(waitUntil([&] { return !sendAll(ends.server.get(), "x"); })) << "nobody is there any more";
}

TEST_F(RelaySessionTest, leavesTheLastBytesToAnApplicationThatReadsThemLater)
{
    Ends ends = start();
    const QByteArray sent = sendUntilStalled(ends.server.get());
    ASSERT_EQ(shutdown(ends.server.get(), SD_SEND), 0);
    // What still waits for room towards the application holds the relay however long that takes.
    const SteadyTime later = steadyNow() + 10 * RelaySession::endingTime;
    ends.relay->closeIfOverdue(later);
    EXPECT_EQ(m_closed, 0);
    QByteArray received;
    EXPECT_TRUE(waitUntil([&] {
        if (std::cmp_less(received.size(), sent.size()) && m_closed == 0)
            received += receiveBytes(ends.application.get(), 4096);
        ends.relay->closeIfOverdue(later);
        return m_closed == 1;
    }));
    ends.relay.reset();
    EXPECT_LT(received.size(), sent.size()) << "the last of it lay in a socket when the relay ended";
    received += receiveBytes(ends.application.get(), sent.size() - received.size());
    EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
    EXPECT_EQ(readToEnd(ends.application.get()), Ending::Proper);
}

TEST_F(RelaySessionTest, tellsWhetherItIsDirect)
{
    StreamPair one = streamPair();
    StreamPair other = streamPair();
    const auto relay =
        std::make_shared<RelaySession>(7, std::move(one.theirs), std::move(other.theirs), true, m_port, [] {});
    EXPECT_TRUE(relay->isDirect());
    EXPECT_EQ(relay->id(), 7u);
    relay->abort();
}

TEST_F(RelaySessionTest, isNotStartedOnceItHasBeenAborted)
{
    const Ends ends = make();
    ends.relay->abort();
    ends.relay->start();
    EXPECT_EQ(m_port.inFlight(), 0);
    EXPECT_EQ(m_closed, 1);
}

using RelayTableTest = RelaySessionTest;

TEST_F(RelayTableTest, countsItsRelaysFrom0)
{
    EXPECT_EQ(m_table.nextId(), 0u);
    EXPECT_EQ(m_table.nextId(), 1u);
    const Ends first = start();
    const Ends second = start();
    EXPECT_EQ(first.relay->id(), 2u);
    EXPECT_EQ(m_table.size(), 2u);
    m_table.remove(first.relay->id());
    m_table.remove(first.relay->id());
    m_table.remove(1000);
    EXPECT_EQ(m_table.size(), 1u);
    first.relay->abort();
}

TEST_F(RelayTableTest, abortsAllAndTakesNoMore)
{
    std::vector<Ends> relays;
    for (int i = 0; i < 5; ++i)
        relays.push_back(start());
    m_table.closeAll();
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG [TCP-NAT] Closing 5 relay sessions"});
    for (Ends &ends : relays)
        ends.relay.reset();
    EXPECT_TRUE(waitForClosed(5));
    for (const Ends &ends : relays) {
        EXPECT_EQ(readToEnd(ends.application.get()), Ending::Reset);
        EXPECT_EQ(readToEnd(ends.server.get()), Ending::Reset);
    }
    StreamPair one = streamPair();
    StreamPair other = streamPair();
    const auto late =
        std::make_shared<RelaySession>(9, std::move(one.theirs), std::move(other.theirs), false, m_port, [] {});
    EXPECT_FALSE(m_table.insert(late));
    EXPECT_EQ(m_table.size(), 0u);
    late->abort();
}

} // namespace
} // namespace ruvo::test
