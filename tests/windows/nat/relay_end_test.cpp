// How relays end: nothing that was received before an end is lost, and what was cut does not look whole.

#include "windows/nat/relay_session_fixture.h"

#include "common/steady_clock.h"

#include <future>

namespace ruvo::test {
namespace {

class RelayEndTest : public RelaySessionTest
{
protected:
    /// What the relay has taken from the server, once it takes no more.
    static std::uint64_t settledDownload(const RelaySession &relay)
    {
        std::uint64_t before = 0;
        waitUntil([&] {
            Sleep(100);
            return std::exchange(before, relay.bytesToClient()) == relay.bytesToClient();
        });
        return before;
    }
};

TEST_F(RelayEndTest, endsBothConnectionsAfterTheApplicationsLastByte)
{
    Ends ends = start();
    const QByteArray bytes = pattern(3'000'000);
    auto sender = std::async(std::launch::async, [&] {
        return sendAll(ends.application.get(), bytes) && shutdown(ends.application.get(), SD_SEND) == 0;
    });
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.server.get(), &received, false), Ending::Proper);
    EXPECT_TRUE(received == bytes);
    EXPECT_TRUE(sender.get());
    EXPECT_EQ(readToEnd(ends.application.get(), nullptr, false), Ending::Proper) << "the other direction ends too";
    ends.relay.reset();
    ends.server.reset();
    EXPECT_TRUE(waitForClosed(1));
    EXPECT_TRUE(m_log.lines().isEmpty()) << "this is how connections end every day";
}

TEST_F(RelayEndTest, endsBothConnectionsAfterTheServersLastByte)
{
    Ends ends = start();
    const QByteArray bytes = pattern(3'000'000);
    auto sender = std::async(std::launch::async, [&] {
        const bool isSent = sendAll(ends.server.get(), bytes);
        ends.server.reset();
        return isSent;
    });
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.application.get(), &received), Ending::Proper);
    EXPECT_TRUE(received == bytes);
    EXPECT_TRUE(sender.get());
    ends.relay.reset();
    ends.application.reset();
    EXPECT_TRUE(waitForClosed(1));
}

// Nothing is sent to a side whose receive is to be given up: that would end the receive by itself.
TEST_F(RelayEndTest, endsTheOtherDirectionThoughItIsSilent)
{
    for (const bool isUploadFirst : {true, false}) {
        const Ends ends = start();
        const SOCKET first = (isUploadFirst ? ends.application : ends.server).get();
        const SOCKET silent = (isUploadFirst ? ends.server : ends.application).get();
        ASSERT_EQ(shutdown(first, SD_SEND), 0);
        EXPECT_EQ(readToEnd(silent, nullptr, false), Ending::Proper);
        EXPECT_EQ(readToEnd(first, nullptr, false), Ending::Proper) << "the silent one is told to be done as well";
    }
}

TEST_F(RelayEndTest, deliversFirstWordsThatCameBeforeItsStartAndAnEnd)
{
    Ends ends = make();
    ASSERT_TRUE(sendAll(ends.server.get(), "220 ready"));
    ASSERT_TRUE(sendAll(ends.application.get(), "QUIT"));
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    ends.relay->start();
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.server.get(), &received), Ending::Proper);
    EXPECT_EQ(received, "QUIT");
    EXPECT_EQ(receiveBytes(ends.application.get(), 9), "220 ready");
    EXPECT_EQ(readToEnd(ends.application.get(), nullptr, false), Ending::Proper);
    ends.relay.reset();
    ends.server.reset();
    EXPECT_TRUE(waitForClosed(1));
}

TEST_F(RelayEndTest, endsAtOnceWhenBothEndsDo)
{
    for (int round = 1; round <= 50; ++round) {
        Ends ends = start();
        auto other = std::async(std::launch::async, [&] { ends.application.reset(); });
        ends.server.reset();
        other.get();
        ends.relay.reset();
        EXPECT_TRUE(waitForClosed(round));
    }
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(RelayEndTest, stillDeliversAnUploadWhoseSenderDoesNotReadTheAnswer)
{
    Ends ends = start();
    const QByteArray answer = sendUntilStalled(ends.server.get()); // to an application that does not read
    const std::uint64_t taken = settledDownload(*ends.relay);
    const QByteArray upload = pattern(200'000);
    ASSERT_TRUE(sendAll(ends.application.get(), upload));
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    QByteArray delivered;
    EXPECT_EQ(readToEnd(ends.server.get(), &delivered, false), Ending::Proper);
    EXPECT_TRUE(delivered == upload) << delivered.size();
    // What the relay had taken for it before is on its way, and the end comes after it.
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.application.get(), &received, false), Ending::Proper);
    EXPECT_GE(static_cast<std::uint64_t>(received.size()), taken);
    EXPECT_TRUE(answer.startsWith(received));
    ends.relay.reset();
    ends.server.reset();
    EXPECT_TRUE(waitForClosed(1));
}

TEST_F(RelayEndTest, stillDeliversAnUploadWhoseSenderHasGoneWithoutReadingTheAnswer)
{
    Ends ends = start();
    sendUntilStalled(ends.server.get());
    const QByteArray upload = pattern(200'000);
    ASSERT_TRUE(sendAll(ends.application.get(), upload));
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    ASSERT_TRUE(waitUntil([&] { return ends.relay->bytesToDestination() == 200'000; }));
    Sleep(200); // the end follows the bytes; nothing tells that the relay has seen it
    resetConnection(ends.application);
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.server.get(), &received), Ending::Proper);
    EXPECT_TRUE(received == upload) << received.size();
    ends.relay.reset();
    ends.server.reset();
    EXPECT_TRUE(waitForClosed(1));
}

TEST_F(RelayEndTest, isNotOverdueWhileASendIsInFlight)
{
    const Ends ends = start();
    const QByteArray sent = sendUntilStalled(ends.server.get());
    const std::uint64_t taken = settledDownload(*ends.relay);
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    EXPECT_EQ(readToEnd(ends.server.get(), nullptr, false), Ending::Proper) << "the relay has seen the end";
    ends.relay->closeIfOverdue(steadyNow() + 10 * RelaySession::endingTime);
    EXPECT_EQ(m_closed, 0);
    QByteArray received;
    EXPECT_EQ(readToEnd(ends.application.get(), &received, false), Ending::Proper);
    EXPECT_GE(static_cast<std::uint64_t>(received.size()), taken) << "all that was taken for it is delivered";
    EXPECT_TRUE(sent.startsWith(received));
}

TEST_F(RelayEndTest, dropsWhatComesAfterTheOtherDirectionsEnd)
{
    Ends ends = start();
    ASSERT_EQ(shutdown(ends.application.get(), SD_SEND), 0);
    EXPECT_EQ(readToEnd(ends.server.get()), Ending::Proper);
    EXPECT_EQ(readToEnd(ends.application.get(), nullptr, false), Ending::Proper);
    EXPECT_TRUE(sendAll(ends.server.get(), pattern(5'000'000)))
        << "it is read, as a reset would hit what came before";
    EXPECT_EQ(m_closed, 0);
    ends.server.reset();
    ends.relay.reset();
    EXPECT_TRUE(waitForClosed(1));
}

TEST_F(RelayEndTest, passesTheServersResetOn)
{
    Ends ends = start();
    ASSERT_TRUE(sendAll(ends.server.get(), "half of the ans"));
    EXPECT_EQ(receiveBytes(ends.application.get(), 15), "half of the ans");
    ends.relay.reset();
    resetConnection(ends.server);
    EXPECT_EQ(readToEnd(ends.application.get()), Ending::Reset);
    EXPECT_TRUE(waitForClosed(1));
    EXPECT_TRUE(m_log.lines().isEmpty()) << m_log.lines().join('\n').toStdString();
}

TEST_F(RelayEndTest, passesTheApplicationsResetOn)
{
    Ends ends = start();
    ASSERT_TRUE(sendAll(ends.application.get(), "half of the que"));
    EXPECT_EQ(receiveBytes(ends.server.get(), 15), "half of the que");
    ends.relay.reset();
    resetConnection(ends.application);
    EXPECT_EQ(readToEnd(ends.server.get()), Ending::Reset);
    EXPECT_TRUE(waitForClosed(1));
    EXPECT_TRUE(m_log.lines().isEmpty()) << m_log.lines().join('\n').toStdString();
}

TEST_F(RelayEndTest, passesAResetOnWhileTheOtherEndStalls)
{
    Ends ends = start();
    sendUntilStalled(ends.server.get());
    ends.relay.reset();
    resetConnection(ends.application);
    EXPECT_EQ(readToEnd(ends.server.get()), Ending::Reset);
    EXPECT_TRUE(waitForClosed(1));
}

} // namespace
} // namespace ruvo::test
