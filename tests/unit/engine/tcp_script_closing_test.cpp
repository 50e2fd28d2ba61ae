// ESTABLISHED to "closed by the application" or "closed by the upstream" (RFC 9293 section 3.6).

#include "unit/engine/tcp_script.h"

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TcpClosing : public TcpScript
{};

// RFC 9293 goes from ESTABLISHED to CLOSE-WAIT, and to LAST-ACK when the user closes. Here both FINs are one step.
TEST_F(TcpClosing, finIsAnsweredWithFin)
{
    establish();
    EXPECT_TRUE(applicationFinishes(1));
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 2"));
    EXPECT_EQ(stream().state(), TcpState::ClosedByApplication);
}

TEST_F(TcpClosing, finRightBehindTheLastDataIsTaken)
{
    establish();
    applicationSends(1, 100);
    EXPECT_TRUE(applicationFinishes(101));
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 101", "FIN|ACK seq 1 ack 102"));
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
}

// RFC 9293 section 3.10.7.4, seventh and eighth check: the text of the segment comes before its FIN.
TEST_F(TcpClosing, finWithDataDeliversTheData)
{
    establish();
    EXPECT_TRUE(applicationFinishes(1, 100));
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 102"));
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
}

TEST_F(TcpClosing, queuedDataStillGoesUpstreamBehindTheFin)
{
    establish();
    upstreamStalls();
    applicationSends(1, 100);
    applicationSends(101, 100);
    EXPECT_TRUE(applicationFinishes(201, 50));
    EXPECT_FALSE(stream().isUploadIdle());
    upstreamGoesOn();
    EXPECT_TRUE(stream().isUploadIdle());
    EXPECT_EQ(uploaded(), streamBytes(0, 250));
}

// RFC 9293 section 3.10.7.4 holds an early FIN back and answers an old one; here both are ignored, and the
// application sends its FIN again.
TEST_F(TcpClosing, finOfAnotherNumberIsIgnored)
{
    establish();
    applicationSends(1, 100);
    written();
    EXPECT_FALSE(applicationFinishes(100));
    EXPECT_FALSE(applicationFinishes(102));
    EXPECT_FALSE(applicationFinishes(51, 50)); // its FIN would be right
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stream().state(), TcpState::Established);
    EXPECT_EQ(uploaded(), streamBytes(0, 100));

    EXPECT_TRUE(applicationFinishes(101));
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 102"));
}

TEST_F(TcpClosing, finBeforeTheDataOfAGapIsIgnored)
{
    establish();
    applicationSends(101, 100);
    EXPECT_FALSE(applicationFinishes(201));
    applicationSends(1, 100);
    EXPECT_TRUE(applicationFinishes(201));
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201", "FIN|ACK seq 1 ack 202"));
}

TEST_F(TcpClosing, finForWhoseDataTheQueueHasNoRoomIsIgnored)
{
    establish();
    upstreamStalls();
    applicationSends(1, 1);
    applicationSends(2, TcpReceiver::maxQueued);
    const std::uint32_t next = TcpReceiver::maxQueued + 2;
    written();
    EXPECT_FALSE(applicationFinishes(next, 1));
    EXPECT_THAT(written(), IsEmpty());

    upstreamTakesOneChunk();
    EXPECT_TRUE(applicationFinishes(next, 1));
    upstreamGoesOn();
    EXPECT_EQ(uploaded(), streamBytes(0, next));
}

// What came early and waits for room stands between the queue and a FIN of its number.
TEST_F(TcpClosing, finBeforeWhatWaitsForRoomIsIgnored)
{
    establish();
    upstreamStalls();
    applicationSends(1, 1);
    applicationSends(2, TcpReceiver::maxQueued - 10);
    const std::uint32_t next = TcpReceiver::maxQueued + 2;
    applicationSends(next, 100);
    applicationSends(next - 10, 10);
    written();
    EXPECT_FALSE(applicationFinishes(next));
    EXPECT_THAT(written(), IsEmpty());

    upstreamGoesOn();
    EXPECT_TRUE(applicationFinishes(next + 100));
    EXPECT_EQ(uploaded(), streamBytes(0, next + 99));
}

TEST_F(TcpClosing, secondFinIsIgnored)
{
    establish();
    applicationFinishes(1);
    written();
    EXPECT_FALSE(applicationFinishes(1));
    EXPECT_FALSE(applicationFinishes(2));
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpClosing, nothingIsReceivedBehindTheFin)
{
    establish();
    applicationFinishes(1);
    written();
    EXPECT_EQ(applicationSends(2, 100), Verdict::Dropped);
    EXPECT_EQ(applicationSends(1, 100), Verdict::Dropped);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(uploaded(), IsEmpty());
}

// RFC 9293 section 3.10.7.3 drops a FIN in SYN-SENT. Here it ends the connection in every state: the application has
// given it up, and the answer has the number that the SYN|ACK would have had.
TEST_F(TcpClosing, finBeforeEstablishedEndsTheConnection)
{
    applicationOpens();
    EXPECT_TRUE(applicationFinishes(1));
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 0 ack 2"));
    EXPECT_EQ(stream().state(), TcpState::ClosedByApplication);
    EXPECT_FALSE(proxyConnects());
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpClosing, finWithDataBeforeEstablishedIsIgnored)
{
    applicationOpens();
    EXPECT_FALSE(applicationFinishes(1, 10));
    EXPECT_TRUE(proxyConnects());
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1"));
    EXPECT_THAT(uploaded(), IsEmpty());
}

// RFC 9293: ESTABLISHED to FIN-WAIT-1.
TEST_F(TcpClosing, closeOfTheUpstreamIsToldWithAFin)
{
    establish();
    upstreamSends(100);
    EXPECT_TRUE(upstreamCloses());
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 100", "FIN|ACK seq 101 ack 1"));
    EXPECT_EQ(stream().state(), TcpState::ClosedByUpstream);
    EXPECT_FALSE(stream().hasWork());
}

TEST_F(TcpClosing, closeOfTheUpstreamFollowsThePacketsThatWait)
{
    establish();
    adapterIsFull();
    upstreamSends(2000);
    EXPECT_TRUE(upstreamCloses());
    EXPECT_THAT(written(), IsEmpty());
    adapterHasRoomFor(1);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460"));
    adapterHasRoom();
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1461 ack 1 len 540", "FIN|ACK seq 2001 ack 1"));
    EXPECT_EQ(downloaded(), streamBytes(0, 2000));
    EXPECT_FALSE(stream().hasWork());
}

TEST_F(TcpClosing, onlyOneSideSendsTheFin)
{
    establish();
    EXPECT_TRUE(applicationFinishes(1));
    EXPECT_FALSE(upstreamCloses());
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 2"));
    EXPECT_EQ(stream().state(), TcpState::ClosedByApplication);
}

// RFC 9293 section 3.6 acknowledges the application's FIN in FIN-WAIT-1 and 2. Here the connection has left the table
// with the upstream's close, and what still comes only moves the window.
TEST_F(TcpClosing, finBehindTheUpstreamsCloseIsNotAnswered)
{
    establish();
    upstreamCloses();
    written();
    EXPECT_FALSE(applicationFinishes(1));
    EXPECT_EQ(applicationSends(1, 100), Verdict::Dropped);
    EXPECT_THAT(written(), IsEmpty());
}

// The upstream's last bytes and the application's FIN may meet: nothing has a number behind a FIN.
TEST_F(TcpClosing, dataThatComesBehindTheFinIsLeftOut)
{
    establish();
    applicationFinishes(1);
    EXPECT_TRUE(upstreamSends(100).isKept);
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 2"));
    EXPECT_FALSE(stream().hasWork());
}

TEST_F(TcpClosing, finTakesOneNumber)
{
    establish();
    upstreamSends(10);
    applicationFinishes(1);
    EXPECT_EQ(applicationAcknowledges({.seq = 2, .ack = 12}), TcpSender::Acknowledged::Progress);
    EXPECT_EQ(applicationAcknowledges({.seq = 2, .ack = 13}), TcpSender::Acknowledged::Nothing);
}

// Our FIN waits like data for the window (RFC 9293 section 3.8.6); the application's is acknowledged by itself, or it
// would be sent again and again.
TEST_F(TcpClosing, finIsAcknowledgedWhileOursWaitsForTheWindow)
{
    establish();
    applicationAcknowledges(1, 0);
    EXPECT_TRUE(applicationFinishes(1));
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 2"));

    applicationAcknowledges({.seq = 2, .ack = 1, .window = 1});
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("FIN|ACK seq 1 ack 2"));
}

TEST_F(TcpClosing, finIsAcknowledgedWhileOursWaitsBehindData)
{
    establish();
    applicationAcknowledges(1, 1000);
    upstreamSends(1460);
    EXPECT_TRUE(applicationFinishes(1));
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 2"));

    applicationAcknowledges({.seq = 2, .ack = 1, .window = 1461});
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 2 len 1460", "FIN|ACK seq 1461 ack 2"));
}

TEST_F(TcpClosing, abandonedUploadLeavesTheStreamIdle)
{
    establish();
    upstreamStalls();
    applicationSends(1, 100);
    EXPECT_FALSE(stream().isUploadIdle());
    stream().abandonUpload();
    EXPECT_TRUE(stream().isUploadIdle());
}

} // namespace
} // namespace ruvo::test
