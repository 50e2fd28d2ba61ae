// When the reader of an empty ring looks again before it sleeps.

#include "netcfg/second_look.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace std::chrono_literals;

class SecondLookTest : public testing::Test
{
protected:
    /// `packets` come, then the ring is empty at `time`.
    bool looksAgain(std::chrono::nanoseconds time, int packets)
    {
        for (int i = 0; i < packets; ++i)
            m_look.tookPacket();
        return m_look.looksAgain(m_start + time);
    }

    SecondLook m_look;
    const SteadyTime m_start = SteadyTime{} + 1h;
};

TEST_F(SecondLookTest, sleepsAtOnceBeforeTheFirstPacket)
{
    EXPECT_FALSE(looksAgain(0us, 0));
    EXPECT_FALSE(looksAgain(1us, 0));
}

TEST_F(SecondLookTest, sleepsAtOnceAfterALonePacket)
{
    EXPECT_FALSE(looksAgain(0us, 1));
    EXPECT_FALSE(looksAgain(1s, 1));
    EXPECT_FALSE(looksAgain(2s, 3));
}

TEST_F(SecondLookTest, looksAgainWhilePacketsComeAtOnce)
{
    looksAgain(0us, 1);
    EXPECT_TRUE(looksAgain(100us, 1));
    EXPECT_TRUE(looksAgain(130us, 1));
    EXPECT_FALSE(looksAgain(231us, 1)) << "more than 100 us after the one before";
    EXPECT_TRUE(looksAgain(300us, 1));
}

TEST_F(SecondLookTest, goesByTheAverageOfTheBurst)
{
    looksAgain(0us, 1);
    EXPECT_TRUE(looksAgain(10ms, 100));
    EXPECT_FALSE(looksAgain(20ms + 1us, 100));
}

TEST_F(SecondLookTest, sleepsOnceTheRingWasEmptyForFiftyMicroseconds)
{
    looksAgain(0us, 1);
    EXPECT_TRUE(looksAgain(100us, 5));
    EXPECT_TRUE(looksAgain(149us, 0));
    EXPECT_FALSE(looksAgain(150us, 0));
    EXPECT_FALSE(looksAgain(151us, 0)) << "nor if it was woken for nothing";
}

TEST_F(SecondLookTest, countsThePatienceFromTheLastPacket)
{
    looksAgain(0us, 1);
    EXPECT_TRUE(looksAgain(40us, 1));
    EXPECT_TRUE(looksAgain(80us, 1));
    EXPECT_TRUE(looksAgain(120us, 0));
    EXPECT_FALSE(looksAgain(130us, 0));
}

} // namespace
} // namespace ruvo
