#include "tun/learned_names.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

constexpr std::uint32_t address = 0x5DB8D822;
constexpr std::int64_t second = 1'000'000'000; // ns

class LearnedNamesTest : public ::testing::Test
{
protected:
    void pass(std::int64_t seconds) { m_now += seconds * second; }

    std::int64_t m_now = 1'000 * second;
    LearnedNames m_names{[this] { return m_now; }};
};

TEST_F(LearnedNamesTest, tellTheNameOfAnAddress)
{
    EXPECT_EQ(m_names.nameOf(address), "");
    m_names.learn(address, "example.com", 300);
    EXPECT_EQ(m_names.nameOf(address), "example.com");
    EXPECT_EQ(m_names.nameOf(address + 1), "");
    EXPECT_EQ(m_names.size(), 1u);
}

TEST_F(LearnedNamesTest, replaceAnEarlierNameAndItsTime)
{
    m_names.learn(address, "old.example", 100);
    pass(90);
    m_names.learn(address, "new.example", 100);
    EXPECT_EQ(m_names.nameOf(address), "new.example");
    EXPECT_EQ(m_names.size(), 1u);
    pass(99);
    EXPECT_EQ(m_names.nameOf(address), "new.example");
}

TEST_F(LearnedNamesTest, lastAsLongAsTheirRecords)
{
    m_names.learn(address, "example.com", 300);
    pass(299);
    EXPECT_EQ(m_names.nameOf(address), "example.com");
    m_names.expire();
    EXPECT_EQ(m_names.size(), 1u);
    pass(1);
    EXPECT_EQ(m_names.nameOf(address), "") << "even before anybody sweeps";
    m_names.expire();
    EXPECT_EQ(m_names.size(), 0u);
}

TEST_F(LearnedNamesTest, lastForAMinuteAtLeast)
{
    m_names.learn(address, "short.example", 0);
    pass(59);
    EXPECT_EQ(m_names.nameOf(address), "short.example");
    pass(1);
    EXPECT_EQ(m_names.nameOf(address), "");
}

TEST_F(LearnedNamesTest, lastForADayAtMost)
{
    m_names.learn(address, "long.example", 0xFFFFFFFF);
    pass(86'399);
    EXPECT_EQ(m_names.nameOf(address), "long.example");
    pass(1);
    EXPECT_EQ(m_names.nameOf(address), "");
}

TEST_F(LearnedNamesTest, areNoLongerThanNamesMayBe)
{
    const std::string longest(253, 'a');
    m_names.learn(address, longest, 300);
    EXPECT_EQ(m_names.nameOf(address), longest);
    m_names.learn(address, std::string(254, 'b'), 300);
    EXPECT_EQ(m_names.nameOf(address), longest);
    m_names.learn(address + 1, std::string(254, 'b'), 300);
    m_names.learn(address + 2, "", 300);
    EXPECT_EQ(m_names.size(), 1u);
}

TEST_F(LearnedNamesTest, makeRoomByTheLongestKnown)
{
    for (std::uint32_t i = 0; i < LearnedNames::maxEntries; ++i)
        m_names.learn(i, "name" + std::to_string(i), 300);
    m_names.learn(0, "again", 300); // the youngest now
    EXPECT_EQ(m_names.size(), LearnedNames::maxEntries);
    m_names.learn(LearnedNames::maxEntries, "one more", 300);
    EXPECT_EQ(m_names.size(), LearnedNames::maxEntries);
    EXPECT_EQ(m_names.nameOf(0), "again");
    EXPECT_EQ(m_names.nameOf(1), "");
    EXPECT_EQ(m_names.nameOf(2), "name2");
    EXPECT_EQ(m_names.nameOf(LearnedNames::maxEntries), "one more");
}

TEST_F(LearnedNamesTest, expireOneByOne)
{
    for (std::uint32_t i = 0; i < 100; ++i)
        m_names.learn(i, "name", 100 + i);
    pass(150);
    m_names.expire();
    EXPECT_EQ(m_names.size(), 49u);
    EXPECT_EQ(m_names.nameOf(51), "name");
    m_names.learn(7, "back", 100);
    EXPECT_EQ(m_names.nameOf(7), "back");
}

TEST_F(LearnedNamesTest, canAllBeForgotten)
{
    m_names.learn(address, "example.com", 300);
    m_names.clear();
    EXPECT_EQ(m_names.size(), 0u);
    EXPECT_EQ(m_names.nameOf(address), "");
    m_names.learn(address, "example.com", 300);
    EXPECT_EQ(m_names.nameOf(address), "example.com");
}

// Workers learn, connection threads ask, flow control expires.
TEST(LearnedNamesThreads, mayLearnAskAndForgetAtOnce)
{
    std::atomic<std::int64_t> now = 1;
    LearnedNames names([&now] { return now.load(); });
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            now += 20 * second;
            names.expire();
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            for (std::uint32_t i = 0; i < 50; ++i) {
                const std::string name = names.nameOf(i);
                if (!name.empty() && name != "name" + std::to_string(i))
                    ++wrong;
            }
        }
    });
    for (int round = 0; round < 400; ++round) {
        for (std::uint32_t i = 0; i < 50; ++i)
            names.learn(i, "name" + std::to_string(i), 60);
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(names.size(), 50u);
}

} // namespace
} // namespace ruvo
