// What cannot be seen from the packets: the memory that early segments take, and the numbers around a wrap.

#include "engine/tcp_receiver.h"

#include "unit/engine/tcp_packets.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace ruvo::test {
namespace {

using Verdict = TcpReceiver::Verdict;

class TcpReceiverTest : public ::testing::Test
{
protected:
    static std::size_t cost(std::size_t bytes) { return bytes + OutOfOrderBudget::perSegment; }
    Bytes takeAll(TcpReceiver &receiver)
    {
        Bytes all;
        while (receiver.queuedBytes() > 0) {
            unsigned drained = 0;
            const Bytes taken = receiver.takeQueued(drained);
            all.insert(all.end(), taken.begin(), taken.end());
        }
        return all;
    }

    OutOfOrderBudget m_budget;
};

TEST_F(TcpReceiverTest, earlySegmentsTakeOfTheBudgetAndGiveBack)
{
    TcpReceiver receiver(0, m_budget);
    receiver.receive(100, Bytes(100));
    receiver.receive(200, Bytes(50));
    EXPECT_EQ(m_budget.used(), cost(100) + cost(50));
    receiver.receive(200, Bytes(10));
    EXPECT_EQ(m_budget.used(), cost(100) + cost(10));
    EXPECT_EQ(receiver.receive(0, Bytes(100)).drained, 2U);
    EXPECT_EQ(m_budget.used(), 0U);
    EXPECT_EQ(receiver.keptSegments(), 0U);
}

TEST_F(TcpReceiverTest, connectionThatEndsGivesBackWhatItKept)
{
    {
        TcpReceiver receiver(0, m_budget);
        receiver.receive(100, Bytes(100));
        EXPECT_GT(m_budget.used(), 0U);
    }
    EXPECT_EQ(m_budget.used(), 0U);
}

TEST_F(TcpReceiverTest, finGivesBackWhatLiesBehindIt)
{
    TcpReceiver receiver(0, m_budget);
    receiver.receive(100, Bytes(100));
    EXPECT_TRUE(receiver.finish(0, {}));
    EXPECT_EQ(m_budget.used(), 0U);
}

TEST_F(TcpReceiverTest, allConnectionsShareTheBudget)
{
    constexpr std::size_t size = 1024 * 1024;
    const Bytes segment(size);
    std::vector<std::unique_ptr<TcpReceiver>> receivers;
    std::size_t kept = 0;
    for (bool isKept = true; isKept; ++kept) {
        receivers.push_back(std::make_unique<TcpReceiver>(0, m_budget));
        isKept = receivers.back()->receive(1, segment).verdict == Verdict::Kept;
    }
    // 256 of them, but for what the maps take themselves.
    EXPECT_EQ(kept, 256U);
    EXPECT_EQ(m_budget.used(), 255 * cost(size));
    EXPECT_EQ(receivers.back()->keptSegments(), 0U);
    EXPECT_EQ(receivers.back()->receive(1, segment).verdict, Verdict::Dropped);

    // What one gives back, another may take; what is in order needs none of it.
    EXPECT_EQ(receivers.back()->receive(0, Bytes(1)).verdict, Verdict::Queued);
    receivers.front().reset();
    EXPECT_EQ(receivers.back()->receive(2, segment).verdict, Verdict::Kept);
    receivers.clear();
    EXPECT_EQ(m_budget.used(), 0U);
}

TEST_F(TcpReceiverTest, budgetIsTakenToItsLastByte)
{
    EXPECT_TRUE(m_budget.take(OutOfOrderBudget::limit));
    EXPECT_FALSE(m_budget.take(1));
    EXPECT_EQ(m_budget.used(), 268'435'456U);
    m_budget.giveBack(1);
    EXPECT_TRUE(m_budget.take(1));
}

TEST_F(TcpReceiverTest, replacementThatIsRefusedLeavesTheFirst)
{
    TcpReceiver receiver(0, m_budget);
    receiver.receive(100, streamBytes(100, 10));
    const std::size_t rest = OutOfOrderBudget::limit - m_budget.used();
    ASSERT_TRUE(m_budget.take(rest));
    EXPECT_EQ(receiver.receive(100, Bytes(20)).verdict, Verdict::Dropped);
    m_budget.giveBack(rest);
    receiver.receive(0, streamBytes(0, 100));
    EXPECT_EQ(takeAll(receiver), streamBytes(0, 110));
    EXPECT_EQ(m_budget.used(), 0U);
}

TEST_F(TcpReceiverTest, tinySegmentsCannotTakeMoreMemoryThanTheBudget)
{
    TcpReceiver receiver(0, m_budget);
    const Bytes one(1);
    for (std::uint32_t seq = 2; seq < 2002; seq += 2)
        receiver.receive(seq, one);
    EXPECT_EQ(m_budget.used(), 1000 * cost(1));
}

// Parts of the queue that are taken one after the other let the early segments in one after the other.
TEST_F(TcpReceiverTest, earlySegmentsFollowInPiecesOfTheQueue)
{
    TcpReceiver receiver(0, m_budget);
    constexpr std::size_t size = TcpReceiver::maxQueued;
    receiver.receive(size, streamBytes(size, size));
    receiver.receive(2 * size, streamBytes(2 * size, 10));
    EXPECT_EQ(receiver.receive(0, streamBytes(0, size)).drained, 0U);
    unsigned drained = 0;
    EXPECT_EQ(receiver.takeQueued(drained), streamBytes(0, size));
    EXPECT_EQ(drained, 1U);
    EXPECT_EQ(receiver.takeQueued(drained), streamBytes(size, size));
    EXPECT_EQ(drained, 1U);
    EXPECT_EQ(receiver.takeQueued(drained), streamBytes(2 * size, 10));
    EXPECT_EQ(drained, 0U);
    EXPECT_EQ(receiver.next(), 2 * size + 10);
    EXPECT_EQ(m_budget.used(), 0U);
}

// Of two old segments behind a wrap, one reaches beyond what is expected: it stays until that has passed it, and goes
// up with none of its bytes.
TEST_F(TcpReceiverTest, oldSegmentThatReachesAcrossTheWrapIsDroppedOnceItIsOld)
{
    TcpReceiver receiver(0xffffffe0, m_budget);
    receiver.receive(0xffffffe0, streamBytes(0, 0x30));                          // expected: 0x10
    EXPECT_EQ(receiver.receive(0xfffffff0, Bytes(0x28)).verdict, Verdict::Kept); // to 0x18
    EXPECT_EQ(receiver.receive(0xffffffe0, Bytes(0x10)).verdict, Verdict::Kept);
    receiver.receive(0x10, streamBytes(0x30, 4));
    EXPECT_EQ(receiver.keptSegments(), 2U);
    receiver.receive(0x14, streamBytes(0x34, 4));
    EXPECT_EQ(receiver.keptSegments(), 0U);
    EXPECT_EQ(receiver.next(), 0x18U);
    EXPECT_EQ(takeAll(receiver), streamBytes(0, 0x38));
}

TEST_F(TcpReceiverTest, segmentKeptBeforeAWrapIsTakenAcrossIt)
{
    TcpReceiver receiver(0xffffff00, m_budget);
    EXPECT_EQ(receiver.receive(0xffffff80, streamBytes(0x80, 0x100)).verdict, Verdict::Kept);
    const TcpReceiver::Outcome outcome = receiver.receive(0xffffff00, streamBytes(0, 0x80));
    EXPECT_EQ(outcome.verdict, Verdict::Queued);
    EXPECT_EQ(outcome.drained, 1U);
    EXPECT_EQ(receiver.next(), 0x80U);
    EXPECT_EQ(takeAll(receiver), streamBytes(0, 0x180));
}

TEST_F(TcpReceiverTest, finOfTheLastNumberIsFollowedByZero)
{
    TcpReceiver receiver(0xffffffff, m_budget);
    EXPECT_TRUE(receiver.finish(0xffffffff, {}));
    EXPECT_EQ(receiver.next(), 0U);
    EXPECT_EQ(receiver.receive(0, Bytes(1)).verdict, Verdict::Duplicate);
}

} // namespace
} // namespace ruvo::test
