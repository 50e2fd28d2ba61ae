// CONNECTING to ESTABLISHED: for RFC 9293, from SYN-SENT of the application's side, LISTEN and SYN-RECEIVED of ours.

#include "unit/engine/tcp_script.h"

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class TcpOpening : public TcpScript
{};

// RFC 9293 section 3.10.7.2 (LISTEN) answers a SYN at once. Here its answer tells the application that the proxy has
// accepted the destination.
TEST_F(TcpOpening, synIsAnsweredOnlyOnceTheProxyHasConnected)
{
    applicationOpens();
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());

    EXPECT_TRUE(proxyConnects());
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1"));
    EXPECT_EQ(stream().state(), TcpState::Established);
}

// RFC 9293 section 3.7.1, RFC 7323 section 2, RFC 2018 section 2. The window is verified in every packet.
TEST_F(TcpOpening, synIsAnsweredWithSegmentSizeWindowScaleAndSack)
{
    applicationOpens();
    proxyConnects();
    ASSERT_THAT(writtenPackets(), SizeIs(1));
    EXPECT_EQ(writtenPackets()[0].options, synOptions());
    EXPECT_THAT(writtenPackets()[0].payload, IsEmpty());
}

TEST_F(TcpOpening, synIsAnsweredOnce)
{
    applicationOpens();
    proxyConnects();
    flowControlRuns();
    EXPECT_FALSE(proxyConnects());
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1"));
}

TEST_F(TcpOpening, sequenceNumbersBeginBehindTheSyns)
{
    applicationOpens();
    proxyConnects();
    applicationAcknowledges(1);
    upstreamSends(10);
    applicationSends(1, 5);
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1", "PSH|ACK seq 1 ack 1 len 10", "ACK seq 11 ack 6"));
}

// RFC 9293 section 3.5.2, first case: a segment without ACK is reset with number 0, and the SYN counts as one.
TEST_F(TcpOpening, refusedSynIsResetWithSequenceZeroAndItsAcknowledgement)
{
    applicationOpens({.seq = 77});
    proxyRefuses();
    ASSERT_THAT(writtenPackets(), SizeIs(1));
    const WrittenPacket &reset = writtenPackets()[0];
    EXPECT_EQ(reset.flags, tcpRst | tcpAck);
    EXPECT_EQ(reset.seq, 0U);
    EXPECT_EQ(reset.ack, 78U);
    EXPECT_THAT(reset.options, IsEmpty());
}

TEST_F(TcpOpening, refusedSynOfTheLastNumberIsAcknowledgedWithZero)
{
    applicationOpens({.seq = 0xffffffff});
    proxyRefuses();
    ASSERT_THAT(writtenPackets(), SizeIs(1));
    EXPECT_EQ(writtenPackets()[0].ack, 0U);
}

// RFC 9293 section 3.10.7.3 (SYN-SENT of the sender, so nothing can be acceptable yet): the application has no number
// of ours that it could acknowledge.
TEST_F(TcpOpening, dataBeforeEstablishedIsIgnored)
{
    applicationOpens();
    EXPECT_EQ(applicationSends(1, 100), Verdict::Dropped);
    proxyConnects();
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1"));
    EXPECT_THAT(uploaded(), IsEmpty());

    EXPECT_EQ(applicationSends(1, 100), Verdict::Queued);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 101"));
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
}

TEST_F(TcpOpening, earlySegmentBeforeEstablishedIsNotKept)
{
    applicationOpens();
    EXPECT_EQ(applicationSends(101, 100), Verdict::Dropped);
    EXPECT_EQ(m_budget.used(), 0U);
    proxyConnects();
    applicationSends(1, 100);
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1", "ACK seq 1 ack 101"));
}

// RFC 9293 section 3.10.7.4: a server may send before the acknowledgement of its SYN has come.
TEST_F(TcpOpening, bannerRightBehindTheReplyFollowsTheSynAck)
{
    applicationOpens();
    proxyConnects();
    upstreamSends(20);
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1", "PSH|ACK seq 1 ack 1 len 20"));
}

// RFC 9293 section 3.10.7.4 checks that an acknowledgement lies in what was sent: one of before the SYN|ACK does not.
TEST_F(TcpOpening, acknowledgementBeforeTheSynAckIsNotTaken)
{
    applicationOpens({.window = 1000});
    EXPECT_EQ(applicationAcknowledges(1, 9), TcpSender::Acknowledged::Nothing);
    proxyConnects();
    written();
    upstreamSends(1000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1000"));
}

// Nothing can be injected into the adapter with IPv6 addresses.
TEST_F(TcpOpening, ipv6IsCarriedUpstreamAndNeverAnswered)
{
    applicationOpens({.isIpv6 = true});
    proxyConnects();
    EXPECT_EQ(stream().state(), TcpState::Established);
    EXPECT_EQ(applicationSends(1, 100), Verdict::Queued);
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
    for (int i = 0; i < 300; ++i) {
        const TcpStream::Downloaded downloaded = upstreamSends(65536);
        EXPECT_TRUE(downloaded.isKept);
        EXPECT_FALSE(downloaded.isPaused);
    }
    EXPECT_FALSE(stream().hasWork());
    EXPECT_TRUE(applicationFinishes(101));
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpOpening, refusedIpv6SynIsNotAnswered)
{
    applicationOpens({.isIpv6 = true});
    proxyRefuses();
    EXPECT_THAT(written(), IsEmpty());
}

} // namespace
} // namespace ruvo::test
