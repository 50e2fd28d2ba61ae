// ESTABLISHED (RFC 9293 section 3.10.7.4): what the application sends.

#include "unit/engine/tcp_script.h"

#include <algorithm>
#include <array>

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TcpUpload : public TcpScript
{
protected:
    /// Segments of 64 KiB, until the queue behind a stalled upstream holds that much.
    void fillQueue(std::size_t size)
    {
        upstreamStalls();
        applicationSends(1, 1); // on its way
        std::uint32_t seq = 2;
        while (size > 0) {
            const std::size_t piece = std::min<std::size_t>(size, 0x10000);
            ASSERT_EQ(applicationSends(seq, piece), Verdict::Queued);
            seq += static_cast<std::uint32_t>(piece);
            size -= piece;
        }
        written();
    }
};

TEST_F(TcpUpload, dataInOrderGoesUpstreamAndIsAcknowledged)
{
    establish();
    applicationSends(1, 100);
    applicationSends(101, 1);
    applicationSends(102, 1460);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 101", "ACK seq 1 ack 102", "ACK seq 1 ack 1562"));
    EXPECT_EQ(uploaded(), streamBytes(0, 1561));
}

TEST_F(TcpUpload, acknowledgementHasNoPayloadAndConsumesNothing)
{
    establish();
    applicationSends(1, 1);
    applicationAcknowledges(1);
    upstreamSends(1);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 2", "PSH|ACK seq 1 ack 2 len 1"));
}

TEST_F(TcpUpload, pureAcknowledgementIsNotAnswered)
{
    establish();
    applicationAcknowledges(1);
    applicationAcknowledges(1, 5000);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(uploaded(), IsEmpty());
}

// RFC 9293 section 3.10.7.4 has early segments answered with a duplicate acknowledgement; here nothing is sent until
// the gap is filled.
TEST_F(TcpUpload, reversedSegmentsAreAcknowledgedTogether)
{
    establish();
    EXPECT_EQ(applicationSends(101, 100), Verdict::Kept);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_THAT(uploaded(), IsEmpty());

    EXPECT_EQ(applicationSends(1, 100), Verdict::Queued);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201"));
    EXPECT_EQ(uploaded(), streamBytes(0, 200));
}

TEST_F(TcpUpload, threeSegmentsInEveryOrderGoUpstreamInTheirOwn)
{
    std::array<std::uint32_t, 3> order{1, 101, 201};
    do {
        SCOPED_TRACE(::testing::PrintToString(order));
        const std::size_t before = uploaded().size();
        establish();
        for (const std::uint32_t seq : order)
            applicationSends(seq, 100);
        EXPECT_EQ(written().back(), "ACK seq 1 ack 301");
        EXPECT_EQ(Bytes(uploaded().begin() + static_cast<std::ptrdiff_t>(before), uploaded().end()),
                  streamBytes(0, 300));
        EXPECT_EQ(m_budget.used(), 0U);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(TcpUpload, gapsAreFilledOneByOne)
{
    establish();
    applicationSends(101, 100);
    applicationSends(301, 100);
    applicationSends(1, 100);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201"));
    applicationSends(201, 100);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 401"));
    EXPECT_EQ(uploaded(), streamBytes(0, 400));
}

// RFC 9293 section 3.10.7.4 (first check) answers a segment outside of the window with an acknowledgement. Here it is
// dropped: no acknowledgement of ours is ever lost on its way.
TEST_F(TcpUpload, duplicateIsDroppedWithoutAnAnswer)
{
    establish();
    applicationSends(1, 100);
    written();
    EXPECT_EQ(applicationSends(1, 100), Verdict::Duplicate);
    EXPECT_EQ(applicationSends(100, 1), Verdict::Duplicate);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
}

TEST_F(TcpUpload, duplicateOfAnEarlySegmentIsQueuedOnce)
{
    establish();
    applicationSends(101, 100);
    applicationSends(101, 100);
    applicationSends(1, 100);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201"));
    EXPECT_EQ(uploaded(), streamBytes(0, 200));
}

TEST_F(TcpUpload, earlySegmentIsReplacedByOneOfTheSameNumber)
{
    establish();
    applicationSends(101, 100);
    applicationSends(101, 50);
    applicationSends(1, 100);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 151"));
    EXPECT_EQ(uploaded(), streamBytes(0, 150));
}

// RFC 9293 section 3.10.7.4 (seventh check) trims what overlaps. Here an early segment is queued whole when its turn
// has come, so the bytes that two segments share go upstream twice and are counted twice: the acknowledgement runs
// ahead of what the application has sent.
TEST_F(TcpUpload, overlappingEarlySegmentIsNotTrimmed)
{
    establish();
    applicationSends(51, 100);
    applicationSends(1, 100);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 201"));
    EXPECT_EQ(uploaded(), concat({streamBytes(0, 100), streamBytes(50, 100)}));
}

// The same where the next segment overlaps what has been queued already: it counts as old as a whole.
TEST_F(TcpUpload, segmentThatBeginsInWhatWasReceivedIsDroppedWhole)
{
    establish();
    applicationSends(1, 100);
    EXPECT_EQ(applicationSends(51, 100), Verdict::Duplicate);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 101"));
    EXPECT_EQ(uploaded(), streamBytes(0, 100));
}

// An application that sends again puts several segments into one: what it covers whole is not queued a second time.
TEST_F(TcpUpload, earlySegmentThatALargerOneHasCoveredIsForgotten)
{
    establish();
    applicationSends(101, 100);
    applicationSends(201, 100);
    applicationSends(1, 300);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 301"));
    EXPECT_EQ(uploaded(), streamBytes(0, 300));
    EXPECT_EQ(m_budget.used(), 0U);
}

TEST_F(TcpUpload, segmentFarAheadWaitsForItsTurn)
{
    establish();
    EXPECT_EQ(applicationSends(1'000'001, 10), Verdict::Kept);
    for (std::uint32_t seq = 1; seq < 1'000'001; seq += 50'000)
        applicationSends(seq, 50'000);
    EXPECT_EQ(written().back(), "ACK seq 1 ack 1000011");
    EXPECT_EQ(uploaded(), streamBytes(0, 1'000'010));
}

TEST_F(TcpUpload, queueTakesExactlyTwoMebibytes)
{
    establish();
    fillQueue(TcpReceiver::maxQueued - 100);
    EXPECT_EQ(applicationSends(TcpReceiver::maxQueued - 98, 100), Verdict::Queued);
    EXPECT_EQ(stream().queuedBytes(), 2'097'152U);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack " + std::to_string(TcpReceiver::maxQueued + 2)));
}

TEST_F(TcpUpload, oneByteOverTheQueueIsRefusedWithoutAnAcknowledgement)
{
    establish();
    fillQueue(TcpReceiver::maxQueued - 100);
    EXPECT_EQ(applicationSends(TcpReceiver::maxQueued - 98, 101), Verdict::Refused);
    EXPECT_THAT(written(), IsEmpty());
    EXPECT_EQ(stream().queuedBytes(), TcpReceiver::maxQueued - 100);
}

TEST_F(TcpUpload, refusedDataSentAgainGoesUpstreamOnce)
{
    establish();
    fillQueue(TcpReceiver::maxQueued);
    const std::uint32_t next = TcpReceiver::maxQueued + 2;
    EXPECT_EQ(applicationSends(next, 100), Verdict::Refused);
    upstreamGoesOn();
    EXPECT_EQ(applicationSends(next, 100), Verdict::Queued);
    EXPECT_EQ(applicationSends(next, 100), Verdict::Duplicate);
    EXPECT_EQ(uploaded(), streamBytes(0, next + 99));
}

// A full queue stops the early segments as well. Once the upstream has taken it they follow, and are acknowledged
// without another segment of the application.
TEST_F(TcpUpload, earlySegmentsFollowOnceTheQueueHasRoomAgain)
{
    establish();
    const std::uint32_t next = TcpReceiver::maxQueued + 2 - 100;
    fillQueue(TcpReceiver::maxQueued - 100);
    EXPECT_EQ(applicationSends(next + 100, 200), Verdict::Kept);
    EXPECT_EQ(applicationSends(next, 100), Verdict::Queued);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack " + std::to_string(next + 100)));

    upstreamTakesOneChunk();
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack " + std::to_string(next + 300)));
    upstreamGoesOn();
    EXPECT_EQ(uploaded(), streamBytes(0, next + 299));
    EXPECT_EQ(m_budget.used(), 0U);
}

// While early segments stand at their turn but have no room, the application sends them again from the first: they
// are in the map already, and taken from there.
TEST_F(TcpUpload, segmentsThatWaitForRoomAndAreSentAgainGoUpstreamOnce)
{
    establish();
    const std::uint32_t next = TcpReceiver::maxQueued + 2 - 100;
    fillQueue(TcpReceiver::maxQueued - 100);
    applicationSends(next + 100, 200);
    applicationSends(next, 100);
    written();

    EXPECT_EQ(applicationSends(next + 100, 200), Verdict::Refused);
    upstreamTakesOneChunk();
    EXPECT_EQ(applicationSends(next + 100, 200), Verdict::Duplicate);
    upstreamGoesOn();
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack " + std::to_string(next + 300)));
    EXPECT_EQ(uploaded(), streamBytes(0, next + 299));
}

// The same where a smaller segment would have room, although the one of its number that was kept has none.
TEST_F(TcpUpload, smallerSegmentDoesNotOvertakeTheOneThatWaitsForRoom)
{
    establish();
    const std::uint32_t next = TcpReceiver::maxQueued + 2 - 100;
    fillQueue(TcpReceiver::maxQueued - 100);
    applicationSends(next + 50, 200);
    applicationSends(next, 50);
    EXPECT_EQ(applicationSends(next + 50, 20), Verdict::Refused);
    upstreamGoesOn();
    EXPECT_EQ(uploaded(), streamBytes(0, next + 249));
}

TEST_F(TcpUpload, whatComesWhileAChunkIsOnItsWayIsGatheredBehindIt)
{
    establish();
    upstreamStalls();
    applicationSends(1, 10);
    applicationSends(11, 10);
    applicationSends(21, 10);
    EXPECT_EQ(uploaded(), streamBytes(0, 10));
    EXPECT_EQ(stream().queuedBytes(), 20U);
    EXPECT_FALSE(stream().isUploadIdle());
    upstreamTakesOneChunk();
    EXPECT_EQ(uploaded(), streamBytes(0, 30));
    EXPECT_FALSE(stream().isUploadIdle());
    upstreamGoesOn();
    EXPECT_TRUE(stream().isUploadIdle());
}

TEST_F(TcpUpload, chunkThatGoesOutInPiecesKeepsItsRest)
{
    establish();
    const Bytes payload = streamBytes(0, 100);
    stream().receive(numbered({.seq = 1}, payload));
    ASSERT_TRUE(stream().beginUpload());
    const std::span<const std::uint8_t> rest = stream().advanceUpload(30);
    EXPECT_EQ(Bytes(rest.begin(), rest.end()), streamBytes(30, 70));
    EXPECT_FALSE(stream().beginUpload());
    EXPECT_FALSE(stream().isUploadIdle());
    EXPECT_THAT(stream().advanceUpload(70), IsEmpty());
    EXPECT_TRUE(stream().isUploadIdle());
}

// RFC 9293 section 3.4: arithmetic modulo 2^32.
TEST_F(TcpUpload, sequenceNumbersWrap)
{
    establish({.seq = 0xffffff00});
    for (std::uint32_t seq = 1; seq < 1000; seq += 100)
        applicationSends(seq, 100);
    EXPECT_EQ(written().back(), "ACK seq 1 ack 1001");
    EXPECT_EQ(uploaded(), streamBytes(0, 1000));
}

// RFC 9293 section 3.4 compares modulo 2^32; here numbers are compared as they are, so that what lies behind a wrap
// looks old. The application sends it again when its turn has come.
TEST_F(TcpUpload, earlySegmentBehindAWrapCountsAsOld)
{
    establish({.seq = 0xffffff9b}); // byte 101 has number 0
    EXPECT_EQ(applicationSends(101, 100), Verdict::Duplicate);
    applicationSends(1, 100);
    EXPECT_EQ(applicationSends(101, 100), Verdict::Queued);
    EXPECT_THAT(written(), ElementsAre("ACK seq 1 ack 101", "ACK seq 1 ack 201"));
    EXPECT_EQ(uploaded(), streamBytes(0, 200));
}

// The reverse: behind a wrap, what is old looks as if it were far ahead and is kept. It must not be queued when the
// numbers come around.
TEST_F(TcpUpload, oldDuplicateBehindAWrapIsNeverQueued)
{
    establish({.seq = 0xffffff9b});
    applicationSends(1, 100);
    applicationSends(101, 100);
    EXPECT_EQ(applicationSends(1, 100), Verdict::Kept);
    EXPECT_GT(m_budget.used(), 0U);
    applicationSends(201, 100);
    EXPECT_EQ(m_budget.used(), 0U);
    EXPECT_EQ(written().back(), "ACK seq 1 ack 301");
    EXPECT_EQ(uploaded(), streamBytes(0, 300));
}

} // namespace
} // namespace ruvo::test
