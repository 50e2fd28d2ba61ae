// ESTABLISHED: what the upstream sends, with room in the application's window and in the adapter.

#include "unit/engine/tcp_script.h"

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TcpDownload : public TcpScript
{};

// RFC 9293 section 3.7.1 limits segments to the size that the SYN announced, or 536 bytes. Here they have 1460 bytes
// whatever it says: that is what the adapter takes.
TEST_F(TcpDownload, fourThousandBytesBecomeThreeSegments)
{
    establish();
    upstreamSends(4000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 1 len 1460",
                                       "PSH|ACK seq 2921 ack 1 len 1080"));
    EXPECT_EQ(downloaded(), streamBytes(0, 4000));
}

TEST_F(TcpDownload, wholeSegmentIsNotCut)
{
    establish();
    upstreamSends(1460);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460"));
}

TEST_F(TcpDownload, oneByteMoreThanASegmentIsASegmentOfItsOwn)
{
    establish();
    upstreamSends(1461);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 1 len 1"));
}

TEST_F(TcpDownload, oneByteIsSentAtOnce)
{
    establish();
    upstreamSends(1);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1"));
}

TEST_F(TcpDownload, largestReceiveIsCutIntoSegments)
{
    establish({.windowShift = 2});
    applicationAcknowledges(1);
    upstreamSends(65536);
    const Lines lines = written();
    ASSERT_EQ(lines.size(), 45U);
    EXPECT_EQ(lines.front(), "PSH|ACK seq 1 ack 1 len 1460");
    EXPECT_EQ(lines.back(), "PSH|ACK seq 64241 ack 1 len 1296");
    EXPECT_EQ(downloaded(), streamBytes(0, 65536));
}

TEST_F(TcpDownload, everySegmentCarriesTheNewestAcknowledgement)
{
    establish();
    upstreamSends(10);
    applicationSends(1, 50);
    upstreamSends(10);
    EXPECT_THAT(written(),
                ElementsAre("PSH|ACK seq 1 ack 1 len 10", "ACK seq 11 ack 51", "PSH|ACK seq 11 ack 51 len 10"));
}

// RFC 9293 section 3.4.
TEST_F(TcpDownload, sequenceNumbersWrap)
{
    establish({.engineSeq = 0xfffffff0});
    upstreamSends(4000);
    EXPECT_THAT(written(), ElementsAre("PSH|ACK seq 1 ack 1 len 1460", "PSH|ACK seq 1461 ack 1 len 1460",
                                       "PSH|ACK seq 2921 ack 1 len 1080"));
    EXPECT_EQ(applicationAcknowledges(4001), TcpSender::Acknowledged::Progress);
    upstreamSends(65536);
    EXPECT_EQ(downloaded(), streamBytes(0, 4000 + 64240)); // the last, shorter one has no room in the window
    EXPECT_EQ(stream().waitingPackets(), 1U);
}

TEST_F(TcpDownload, ourSynOfTheLastNumberIsFollowedByZero)
{
    applicationOpens({.engineSeq = 0xffffffff});
    proxyConnects();
    applicationAcknowledges(1);
    upstreamSends(10);
    ASSERT_EQ(writtenPackets().size(), 2U);
    EXPECT_EQ(writtenPackets()[0].seq, 0xffffffffU);
    EXPECT_EQ(writtenPackets()[1].seq, 0U);
}

TEST_F(TcpDownload, nothingIsEverSentTwice)
{
    establish();
    upstreamSends(100);
    written();
    for (int i = 0; i < 4; ++i)
        applicationAcknowledges(1);
    timePasses(std::chrono::minutes(1));
    flowControlRuns();
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_FALSE(stream().hasWork());
}

} // namespace
} // namespace ruvo::test
