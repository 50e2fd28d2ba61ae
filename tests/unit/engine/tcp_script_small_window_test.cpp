// A window that stays closed or too small for what waits (RFC 9293 sections 3.8.6.1 and 3.8.6.2).

#include "unit/engine/tcp_script.h"

#include <string>

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Acknowledged = TcpSender::Acknowledged;
using namespace std::chrono_literals;

class TcpSmallWindow : public TcpScript
{
protected:
    /// The flow-control thread at its pace; what it wrote is in `written`.
    void flowControlRunsFor(std::chrono::milliseconds time)
    {
        for (constexpr auto step = 10ms; time > 0ms; time -= step) {
            timePasses(step);
            flowControlRuns();
        }
    }
};

// RFC 9293 section 3.8.6.2.1: silly windows are waited for, but not for ever.
TEST_F(TcpSmallWindow, windowThatOpensByOneByteGetsOneByteAfterASecond)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(100);
    EXPECT_EQ(applicationAcknowledges(1, 1), Acknowledged::Progress);
    flowControlRunsFor(1000ms);
    EXPECT_THAT(written(), IsEmpty());
    flowControlRunsFor(20ms);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1"));

    EXPECT_EQ(applicationAcknowledges(2, 1000), Acknowledged::Room);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 2 ack 1 len 99"));
    EXPECT_EQ(downloaded(), streamBytes(0, 100));
}

TEST_F(TcpSmallWindow, packetIsCutToAWindowThatStaysTooSmall)
{
    establish({.window = 2000});
    upstreamSends(2920);
    flowControlRunsFor(1020ms);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 1 len 540"));
    applicationAcknowledges(2001, 2000);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 2001 ack 1 len 920"));
    EXPECT_EQ(downloaded(), streamBytes(0, 2920));
}

TEST_F(TcpSmallWindow, packetIsCutAgainAndAgain)
{
    establish({.window = 500});
    upstreamSends(1460);
    Lines lines;
    for (std::uint32_t acknowledged = 1; downloaded().size() < 1460;) {
        flowControlRunsFor(1020ms);
        for (const std::string &line : written())
            lines.push_back(line);
        ASSERT_GT(downloaded().size() + 1, acknowledged);
        acknowledged = static_cast<std::uint32_t>(downloaded().size() + 1);
        applicationAcknowledges(acknowledged);
    }
    EXPECT_THAT(lines, ElementsAre("PSH|ACK seq 1 ack 1 len 500", "PSH|ACK seq 501 ack 1 len 500",
                                   "PSH|ACK seq 1001 ack 1 len 460"));
    EXPECT_EQ(downloaded(), streamBytes(0, 1460));
}

TEST_F(TcpSmallWindow, cutPacketThatTheAdapterRefusesStaysWhole)
{
    establish({.window = 500});
    upstreamSends(1460);
    adapterIsFull();
    flowControlRunsFor(1020ms);
    EXPECT_TRUE(flowControlRuns().isRefused);
    adapterHasRoom();
    applicationAcknowledges(1, 1460);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460"));
}

TEST_F(TcpSmallWindow, progressOfTheWindowStartsTheSecondAnew)
{
    establish({.window = 100});
    upstreamSends(1460);
    flowControlRunsFor(900ms);
    applicationAcknowledges(1, 200);
    flowControlRunsFor(900ms);
    EXPECT_THAT(written(), IsEmpty());
    flowControlRunsFor(120ms);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 200"));
}

// RFC 9293 section 3.8.6.1 probes with a byte of data. Here the probe has the number in front of the next: it lies
// outside of the window, which the application has to answer (section 3.10.7.4, first check), and takes nothing.
TEST_F(TcpSmallWindow, closedWindowIsProbedEverySecondWithTheNumberBefore)
{
    establish();
    upstreamSends(10);
    applicationAcknowledges(11, 0);
    upstreamSends(100);
    written();
    flowControlRunsFor(1000ms);
    EXPECT_THAT(written(), IsEmpty());
    flowControlRunsFor(20ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 10 ack 1"));
    flowControlRunsFor(980ms);
    EXPECT_THAT(written(), IsEmpty());
    flowControlRunsFor(20ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 10 ack 1"));

    EXPECT_EQ(applicationAcknowledges(11, 65535), Acknowledged::Room);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 11 ack 1 len 100"));
}

TEST_F(TcpSmallWindow, answerToAProbeThatOpensNothingIsNoProgress)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(100);
    flowControlRunsFor(1020ms);
    EXPECT_EQ(applicationAcknowledges(1, 0), Acknowledged::Nothing);
    written();
    flowControlRunsFor(1000ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 0 ack 1"));
}

// Unacknowledged bytes may fill a window that is not closed; what the application has said of them may be old.
TEST_F(TcpSmallWindow, windowThatIsFullOfUnacknowledgedBytesIsProbed)
{
    establish({.window = 1460});
    upstreamSends(2000);
    written();
    flowControlRunsFor(1020ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1460 ack 1"));
}

TEST_F(TcpSmallWindow, probeThatTheAdapterRefusesIsTriedAgain)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(100);
    adapterIsFull();
    flowControlRunsFor(1500ms);
    EXPECT_TRUE(flowControlRuns().isRefused);
    adapterHasRoom();
    flowControlRunsFor(10ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 0 ack 1"));
}

TEST_F(TcpSmallWindow, openWindowIsNotProbed)
{
    establish();
    upstreamSends(1000);
    written();
    flowControlRunsFor(5000ms);
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpSmallWindow, finWaitsForTheWindowAndIsProbedFor)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamCloses();
    EXPECT_THAT(written(), IsEmpty());
    flowControlRunsFor(1020ms);
    EXPECT_THAT(written(), ElementsAre("ACK seq 0 ack 1"));
    EXPECT_EQ(applicationAcknowledges(1, 1), Acknowledged::Room);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 1"));
}

} // namespace
} // namespace ruvo::test
