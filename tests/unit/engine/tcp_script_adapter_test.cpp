// An adapter that is full: packets wait, keep their order, and get their numbers when they are written.

#include "unit/engine/tcp_script.h"

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TcpAdapter : public TcpScript
{
protected:
    /// So many packets, of one byte each.
    void upstreamSendsPackets(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            m_last = upstreamSends(1);
    }
    TcpStream::Downloaded m_last;
};

TEST_F(TcpAdapter, synAckWaitsAndDataWaitsBehindIt)
{
    applicationOpens();
    adapterIsFull();
    proxyConnects();
    upstreamSends(10);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_TRUE(flowControlRuns().isRefused);

    adapterHasRoom();
    const TcpSender::Drained drained = flowControlRuns();
    EXPECT_EQ(drained.packets, 2U);
    EXPECT_EQ(drained.bytes, 10U);
    EXPECT_FALSE(drained.isRefused);
    EXPECT_THAT(written(), ElementsAre("SYN|ACK seq 0 ack 1", "PSH|ACK seq 1 ack 1 len 10"));
}

TEST_F(TcpAdapter, synAckThatWaitedHasItsOptions)
{
    applicationOpens();
    adapterIsFull();
    proxyConnects();
    adapterHasRoom();
    flowControlRuns();
    ASSERT_EQ(writtenPackets().size(), 1U);
    EXPECT_EQ(writtenPackets()[0].options, synOptions());
}

TEST_F(TcpAdapter, finWaitsBehindData)
{
    establish();
    adapterIsFull();
    upstreamSends(1500);
    applicationFinishes(1);
    EXPECT_THAT(written(), IsEmpty());
    adapterHasRoom();
    flowControlRuns();
    // All three acknowledge the application's FIN: no bare acknowledgement is needed.
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 2 len 1460", "PSH|ACK seq 1461 ack 2 len 40",
                                       "FIN|ACK seq 1501 ack 2"));
    EXPECT_FALSE(stream().hasWork());
}

TEST_F(TcpAdapter, packetsAreNumberedWhenTheyAreWritten)
{
    establish();
    adapterHasRoomFor(1);
    upstreamSends(2000);
    applicationSends(1, 300);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 301 len 540"));
    EXPECT_EQ(downloaded(), streamBytes(0, 2000));
}

TEST_F(TcpAdapter, packetsThatWaitGoBeforeNewOnes)
{
    establish();
    adapterIsFull();
    upstreamSends(10);
    adapterHasRoom();
    upstreamSends(20);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 10", "PSH|ACK seq 11 ack 1 len 20"));
}

TEST_F(TcpAdapter, nothingOvertakesWhatStillWaits)
{
    establish();
    adapterIsFull();
    upstreamSends(3000);
    adapterHasRoomFor(1);
    upstreamSends(10);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460"));
    EXPECT_EQ(stream().waitingPackets(), 3U);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1461 ack 1 len 1460", "PSH|ACK seq 2921 ack 1 len 80",
                                       "PSH|ACK seq 3001 ack 1 len 10"));
    EXPECT_EQ(downloaded(), streamBytes(0, 3010));
}

TEST_F(TcpAdapter, segmentsBehindARefusedOneWaitAlthoughThereIsRoomAgain)
{
    establish();
    adapterIsFull();
    upstreamSends(1);
    upstreamSends(4000);
    EXPECT_EQ(stream().waitingPackets(), 4U);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_EQ(downloaded(), streamBytes(0, 4001));
}

TEST_F(TcpAdapter, oneBareAcknowledgementWaitsAndTellsTheNewest)
{
    establish();
    adapterIsFull();
    for (std::uint32_t seq = 1; seq < 1001; seq += 100)
        applicationSends(seq, 100);
    EXPECT_EQ(stream().waitingPackets(), 0U);
    EXPECT_TRUE(stream().hasWork());
    EXPECT_TRUE(flowControlRuns().isRefused);

    adapterHasRoom();
    EXPECT_FALSE(flowControlRuns().isRefused);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 1001"));
    EXPECT_FALSE(stream().hasWork());
}

// RFC 9293 section 3.8.6.3: data carries the acknowledgement. A bare one besides would be a duplicate, of which three
// make an application send again (RFC 5681 section 3.2).
TEST_F(TcpAdapter, acknowledgementThatWaitsRidesOnData)
{
    establish();
    adapterIsFull();
    applicationSends(1, 100);
    adapterHasRoom();
    upstreamSends(10);
    EXPECT_FALSE(stream().hasWork());
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 101 len 10"));
}

TEST_F(TcpAdapter, acknowledgementThatWaitsGoesWithTheNextOne)
{
    establish();
    adapterIsFull();
    applicationSends(1, 100);
    adapterHasRoom();
    applicationSends(101, 100);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201"));
}

TEST_F(TcpAdapter, with149PacketsWaitingTheUpstreamGoesOn)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(149);
    EXPECT_FALSE(m_last.isPaused);
    EXPECT_FALSE(flowControlRuns().resumes);
}

TEST_F(TcpAdapter, with150PacketsWaitingTheUpstreamPauses)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(150);
    EXPECT_TRUE(m_last.isPaused);
    EXPECT_TRUE(m_last.isKept);
    EXPECT_TRUE(stream().hasWork());
}

TEST_F(TcpAdapter, upstreamResumesOnceBelow150AndIsToldOnce)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(152);
    adapterHasRoomFor(2);
    EXPECT_FALSE(flowControlRuns().resumes); // 150 are left
    adapterHasRoomFor(1);
    EXPECT_TRUE(flowControlRuns().resumes);
    EXPECT_FALSE(flowControlRuns().resumes);
    adapterHasRoom();
    EXPECT_FALSE(flowControlRuns().resumes);
    EXPECT_EQ(downloaded(), streamBytes(0, 152));
    EXPECT_FALSE(stream().hasWork());
}

// Between the pause and the flow-control thread an acknowledgement may have emptied the queue.
TEST_F(TcpAdapter, upstreamThatPausedResumesThoughNothingWaitsAnyMore)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(150);
    adapterHasRoom();
    applicationSends(1, 1);
    EXPECT_EQ(stream().waitingPackets(), 0U);
    EXPECT_TRUE(stream().hasWork());
    EXPECT_TRUE(flowControlRuns().resumes);
    EXPECT_FALSE(stream().hasWork());
}

TEST_F(TcpAdapter, upstreamPausesAgain)
{
    establish();
    for (int i = 0; i < 3; ++i) {
        adapterIsFull();
        upstreamSendsPackets(150);
        EXPECT_TRUE(m_last.isPaused);
        adapterHasRoom();
        EXPECT_TRUE(flowControlRuns().resumes);
    }
    EXPECT_EQ(downloaded(), streamBytes(0, 450));
}

TEST_F(TcpAdapter, packet257IsLost)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(256);
    EXPECT_TRUE(m_last.isKept);
    EXPECT_FALSE(upstreamSends(1).isKept);
    EXPECT_EQ(stream().waitingPackets(), 256U);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_EQ(downloaded(), streamBytes(0, 256));
}

TEST_F(TcpAdapter, finHasRoomBehind256Packets)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(256);
    upstreamCloses();
    adapterHasRoom();
    flowControlRuns();
    const Lines lines = written();
    ASSERT_EQ(lines.size(), 257U);
    EXPECT_EQ(lines.back(), "FIN|ACK seq 257 ack 1");
}

TEST_F(TcpAdapter, acknowledgementIsNotLostBehind256Packets)
{
    establish();
    adapterIsFull();
    upstreamSendsPackets(256);
    applicationSends(1, 100);
    adapterHasRoomFor(1);
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 101 len 1"));
}

TEST_F(TcpAdapter, refusedResetIsNotKept)
{
    applicationOpens();
    adapterIsFull();
    proxyRefuses();
    adapterHasRoom();
    EXPECT_FALSE(stream().hasWork());
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
}

TEST_F(TcpAdapter, sequenceNumbersThatWaitWrap)
{
    establish({.seq = 0xffffffc0, .engineSeq = 0xfffffff0});
    adapterIsFull();
    upstreamSends(3000);
    applicationSends(1, 100);
    adapterHasRoom();
    flowControlRuns();
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 101 len 1460", "PSH|ACK seq 1461 ack 101 len 1460",
                                       "PSH|ACK seq 2921 ack 101 len 80"));
}

} // namespace
} // namespace ruvo::test
