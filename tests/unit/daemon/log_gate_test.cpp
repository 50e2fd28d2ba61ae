#include "daemon/log_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;

class LogGateTest : public ::testing::Test
{
protected:
    bool isOpen() { return m_gate.enter().has_value(); }

    std::atomic<SteadyTime> m_now = SteadyTime(100s);
    LogGate m_gate{[this] { return m_now.load(); }};

    void wait(LogGate::Duration time) { m_now = m_now.load() + time; }
};

TEST_F(LogGateTest, letsManyInOneAfterTheOther)
{
    for (int i = 0; i < 1000; ++i)
        EXPECT_TRUE(isOpen()) << i;
}

TEST_F(LogGateTest, isShutWhileOneHasBeenInsideForASecond)
{
    const auto inside = m_gate.enter();
    ASSERT_TRUE(inside);
    wait(999ms);
    EXPECT_TRUE(isOpen());
    wait(1ms);
    EXPECT_FALSE(isOpen());
    wait(1h);
    EXPECT_FALSE(isOpen());
}

TEST_F(LogGateTest, staysShutForFiveSecondsAfterSuchAOne)
{
    auto inside = m_gate.enter();
    wait(1s);
    inside.reset();
    EXPECT_FALSE(isOpen());
    wait(4999ms);
    EXPECT_FALSE(isOpen());
    wait(1ms);
    EXPECT_TRUE(isOpen());
}

TEST_F(LogGateTest, isOpenAtOnceAfterOneThatWasFaster)
{
    auto inside = m_gate.enter();
    wait(999ms);
    inside.reset();
    EXPECT_TRUE(isOpen());
    wait(1s);
    EXPECT_TRUE(isOpen()) << "who has come out is not counted as inside";
}

TEST_F(LogGateTest, staysShutForTheLastOfThoseWhoWereHeldUp)
{
    auto first = m_gate.enter();
    auto second = m_gate.enter();
    wait(2s);
    second.reset();
    wait(3s);
    first.reset(); // 3 s later than the other: so much longer is the gate shut
    wait(4999ms);
    EXPECT_FALSE(isOpen());
    wait(1ms);
    EXPECT_TRUE(isOpen());
}

TEST_F(LogGateTest, isNotOpenedEarlierByOneWhoLookedAtTheClockBefore)
{
    auto first = m_gate.enter();
    auto second = m_gate.enter();
    wait(3s);
    first.reset();
    wait(-1s); // the other was held up right after its look
    second.reset();
    wait(5s);
    EXPECT_FALSE(isOpen());
    wait(1s);
    EXPECT_TRUE(isOpen());
}

TEST_F(LogGateTest, letsMoreInThanItWatches)
{
    std::deque<std::optional<LogGate::Pass>> inside;
    for (std::size_t i = 0; i < LogGate::watchedAtATime + 8; ++i) {
        inside.push_back(m_gate.enter());
        EXPECT_TRUE(inside.back()) << i;
    }
    wait(1s);
    EXPECT_FALSE(isOpen());
    while (inside.size() > LogGate::watchedAtATime)
        inside.pop_front(); // eight of those whom it watches
    EXPECT_FALSE(isOpen());
    inside.clear();
    wait(5s);
    EXPECT_TRUE(isOpen());
    wait(1s);
    EXPECT_TRUE(isOpen()) << "all have come out";
}

TEST_F(LogGateTest, isShutByOneWhomItDoesNotWatchOnceThatIsOut)
{
    std::deque<std::optional<LogGate::Pass>> inside;
    for (std::size_t i = 0; i < LogGate::watchedAtATime; ++i)
        inside.push_back(m_gate.enter());
    auto unwatched = m_gate.enter();
    inside.clear();
    wait(1s);
    EXPECT_TRUE(isOpen());
    unwatched.reset();
    EXPECT_FALSE(isOpen());
}

TEST(LogGateThreads, passFreelyWhileNobodyIsHeldUp)
{
    LogGate gate;
    std::atomic<int> leftOut = 0;
    std::atomic<bool> slow = false; // the machine held one of them up for a second
    {
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 8; ++thread) {
            threads.emplace_back([&] {
                for (int i = 0; i < 2000; ++i) {
                    const SteadyTime start = steadyNow();
                    if (!gate.enter())
                        ++leftOut;
                    if (steadyNow() - start >= LogGate::patience)
                        slow = true;
                }
            });
        }
    }
    if (!slow) {
        EXPECT_EQ(leftOut, 0);
    }
}

} // namespace
} // namespace ruvo
