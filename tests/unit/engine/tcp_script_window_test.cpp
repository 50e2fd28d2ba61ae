// The application's receive window (RFC 9293 section 3.8.6, RFC 7323 section 2).

#include "unit/engine/tcp_script.h"

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Acknowledged = TcpSender::Acknowledged;

class TcpWindow : public TcpScript
{};

TEST_F(TcpWindow, noMoreIsSentThanTheWindowTakes)
{
    establish({.window = 3000});
    upstreamSends(4000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 1 len 1460"));
    EXPECT_EQ(stream().waitingPackets(), 1U);
}

TEST_F(TcpWindow, windowIsFilledToItsLastByte)
{
    establish({.window = 2920});
    upstreamSends(2920);
    EXPECT_EQ(downloaded().size(), 2920U);
    upstreamSends(1);
    EXPECT_EQ(downloaded().size(), 2920U);
}

TEST_F(TcpWindow, acknowledgedBytesMakeRoom)
{
    establish({.window = 3000});
    upstreamSends(4000);
    written();
    EXPECT_EQ(applicationAcknowledges(1461), Acknowledged::Room);
    EXPECT_THAT(written(), IsEmpty()); // the flow-control thread is woken for it
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 2921 ack 1 len 1080"));
}

TEST_F(TcpWindow, fewAcknowledgedBytesMakeNoRoom)
{
    establish({.window = 3000});
    upstreamSends(4380);
    EXPECT_EQ(applicationAcknowledges(101), Acknowledged::Progress);
    EXPECT_EQ(applicationAcknowledges(101), Acknowledged::Nothing);
}

TEST_F(TcpWindow, acknowledgementWithNothingWaitingIsProgress)
{
    establish();
    upstreamSends(100);
    EXPECT_EQ(applicationAcknowledges(101), Acknowledged::Progress);
    EXPECT_EQ(applicationAcknowledges(101), Acknowledged::Nothing);
    EXPECT_EQ(applicationAcknowledges(101, 100), Acknowledged::Progress);
}

TEST_F(TcpWindow, closedWindowHoldsEverythingBack)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(1);
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_FALSE(flowControlRuns().isRefused); // by the application, not by the adapter
}

TEST_F(TcpWindow, windowThatOpensWideReleasesWhatWaits)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(4000);
    EXPECT_EQ(applicationAcknowledges(1, 65535), Acknowledged::Room);
    flowControlRuns();
    EXPECT_EQ(downloaded(), streamBytes(0, 4000));
}

TEST_F(TcpWindow, acknowledgementsDoNotWaitForTheWindow)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(100);
    applicationSends(1, 50);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 51"));
}

TEST_F(TcpWindow, acknowledgementThatTheAdapterRefusedFollowsAtAClosedWindow)
{
    establish();
    applicationAcknowledges(1, 0);
    upstreamSends(100);
    adapterIsFull();
    applicationSends(1, 50);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 51"));
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
}

// RFC 7323 section 2.2: the window of the SYN itself is never scaled.
TEST_F(TcpWindow, windowOfTheSynIsNotScaled)
{
    applicationOpens({.window = 1460, .windowShift = 8});
    proxyConnects();
    upstreamSends(2000);
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1", "PSH|ACK seq 1 ack 1 len 1460"));
}

TEST_F(TcpWindow, windowsBehindTheSynAreScaled)
{
    establish({.window = 10, .windowShift = 8}); // 2,560 from the acknowledgement of the SYN|ACK on
    upstreamSends(4000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460"));
    applicationAcknowledges(1461, 11); // 2,816
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1461 ack 1 len 1460", "PSH|ACK seq 2921 ack 1 len 1080"));
}

TEST_F(TcpWindow, windowIsNotScaledIfTheSynDoesNotSaySo)
{
    establish({.window = 1000});
    upstreamSends(1001);
    EXPECT_THAT(written(), IsEmpty());
}

// RFC 7323 section 2.3: 2^30 bytes.
TEST_F(TcpWindow, largestWindowTakesAGibibyteWithoutAnAcknowledgement)
{
    establish({.windowShift = 14});
    applicationAcknowledges(1, 65535);
    for (int i = 0; i < 1000; ++i)
        upstreamSends(14'600);
    EXPECT_EQ(downloaded().size(), 14'600'000U);
    EXPECT_FALSE(stream().hasWork());
}

// RFC 9293 section 3.8.6: a window may shrink, and more may be on its way than it takes.
TEST_F(TcpWindow, windowThatShrinksBelowWhatIsOnItsWayStopsTheSending)
{
    establish();
    upstreamSends(4000);
    written();
    applicationAcknowledges(1461, 100);
    upstreamSends(10);
    EXPECT_THAT(written(), IsEmpty());
    applicationAcknowledges(4001, 100);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 4001 ack 1 len 10"));
}

// RFC 9293 section 3.10.7.4, fifth check, SND.WL1: a segment that was overtaken must not bring its window back.
TEST_F(TcpWindow, windowOfAnOvertakenSegmentIsNotTaken)
{
    establish();
    upstreamSends(100);
    written();
    EXPECT_EQ(applicationAcknowledges({.seq = 11, .ack = 101, .window = 20}), Acknowledged::Progress);
    EXPECT_EQ(applicationAcknowledges({.seq = 1, .ack = 101, .window = 60'000}), Acknowledged::Nothing);
    upstreamSends(21);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(applicationAcknowledges({.seq = 11, .ack = 101, .window = 21}), Acknowledged::Room);
}

// RFC 9293 section 3.10.7.4, fifth check, would keep the window of 3,000, counted from byte 3,001 now, and send up to
// byte 6,000: but the segment that the application sent again is the newer one, and has room up to byte 4,000.
TEST_F(TcpWindow, windowOfASegmentSentAgainCountsFromItsAcknowledgement)
{
    establish();
    upstreamSends(3000);
    written();
    applicationAcknowledges({.seq = 201, .ack = 1001, .window = 3000});
    applicationAcknowledges({.seq = 1, .ack = 3001, .window = 1000});
    upstreamSends(1000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 3001 ack 1 len 1000"));
    upstreamSends(1);
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpWindow, windowOfAnOlderAcknowledgementIsNotTaken)
{
    establish();
    upstreamSends(100);
    written();
    applicationAcknowledges({.seq = 1, .ack = 101, .window = 10});
    EXPECT_EQ(applicationAcknowledges({.seq = 1, .ack = 51, .window = 60'000}), Acknowledged::Nothing);
    upstreamSends(11);
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpWindow, numbersOfTheWindowWrap)
{
    establish({.window = 1000, .seq = 0xfffffff0, .engineSeq = 0xffffff00});
    upstreamSends(1000);
    EXPECT_EQ(applicationAcknowledges({.seq = 101, .ack = 1001, .window = 2000}), Acknowledged::Progress);
    upstreamSends(2920);
    EXPECT_EQ(downloaded(), streamBytes(0, 2460)); // 1,460 of the window of 2,000
    EXPECT_EQ(applicationAcknowledges({.seq = 101, .ack = 2461, .window = 2000}), Acknowledged::Room);
    flowControlRuns();
    EXPECT_EQ(downloaded(), streamBytes(0, 3920));
}

// RFC 9293 section 3.10.7.4, fifth check, answers it; here a pure acknowledgement triggers nothing. Neither its
// number nor its window are taken.
TEST_F(TcpWindow, acknowledgementOfBytesNeverSentIsNotTaken)
{
    establish({.window = 100});
    upstreamSends(100);
    written();
    EXPECT_EQ(applicationAcknowledges(102, 60'000), Acknowledged::Nothing);
    upstreamSends(1);
    EXPECT_THAT(written(), IsEmpty());
    applicationAcknowledges(101, 100);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 101 ack 1 len 1"));
}

TEST_F(TcpWindow, bytesThatWaitCannotBeAcknowledged)
{
    establish({.window = 100});
    adapterIsFull();
    upstreamSends(100);
    EXPECT_EQ(applicationAcknowledges(101), Acknowledged::Nothing);
}

TEST_F(TcpWindow, segmentWithoutAckFlagMovesNothing)
{
    establish({.window = 100});
    upstreamSends(200);
    EXPECT_EQ(applicationAcknowledges({.seq = 1, .ack = 1, .flags = 0, .window = 60'000}), Acknowledged::Nothing);
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpWindow, dataOfTheApplicationCarriesItsWindow)
{
    establish({.window = 100});
    upstreamSends(200);
    const Bytes payload = streamBytes(0, 10);
    applicationSends(numbered({.seq = 1, .ack = 1, .window = 200}, payload));
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 11 len 200", "ACK seq 201 ack 11"));
}

TEST_F(TcpWindow, windowThatIsFullPausesTheUpstreamToo)
{
    establish();
    applicationAcknowledges(1, 0);
    TcpStream::Downloaded last;
    for (int i = 0; i < 150; ++i)
        last = upstreamSends(1);
    EXPECT_TRUE(last.isPaused);
    EXPECT_EQ(applicationAcknowledges(1, 1), Acknowledged::Room);
    EXPECT_TRUE(flowControlRuns().resumes);
}

} // namespace
} // namespace ruvo::test
