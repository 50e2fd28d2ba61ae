#include "tun/learned_names.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <type_traits>
#include <vector>

namespace ruvo {
namespace {

using Ipv4 = LearnedNames::Ipv4Address;
using Ipv6 = LearnedNames::Ipv6Address;
using std::chrono::seconds;

/// As many addresses of either kind as a test needs. Those of IPv6 differ in their last bytes only.
template<typename Address>
Address addressOf(std::uint32_t number)
{
    if constexpr (std::is_same_v<Address, Ipv4>) {
        return number;
    } else {
        Ipv6 address{0x20, 0x01, 0x0D, 0xB8};
        for (std::size_t i = 0; i < 4; ++i)
            address[12 + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
        return address;
    }
}

/// What holds for addresses of both kinds.
template<typename Address>
class LearnedNamesTest : public ::testing::Test
{
protected:
    void pass(int count) { m_now += seconds(count); }
    void learn(std::uint32_t number, const std::string &name, std::uint32_t timeToLive = 300)
    {
        m_names.learn(addressOf<Address>(number), name, timeToLive);
    }
    std::string nameOf(std::uint32_t number) const { return m_names.nameOf(addressOf<Address>(number)); }

    static constexpr std::uint32_t address = 0x5DB8D822;
    SteadyTime m_now{seconds(1'000)};
    LearnedNames m_names{[this] { return m_now; }};
};

struct KindNames
{
    template<typename Address>
    static std::string GetName(int)
    {
        return std::is_same_v<Address, Ipv4> ? "Ipv4" : "Ipv6";
    }
};
using Kinds = ::testing::Types<Ipv4, Ipv6>;
TYPED_TEST_SUITE(LearnedNamesTest, Kinds, KindNames);

TYPED_TEST(LearnedNamesTest, tellTheNameOfAnAddress)
{
    EXPECT_EQ(this->nameOf(this->address), "");
    this->learn(this->address, "example.com");
    EXPECT_EQ(this->nameOf(this->address), "example.com");
    EXPECT_EQ(this->nameOf(this->address + 1), "");
    EXPECT_EQ(this->m_names.size(), 1u);
}

TYPED_TEST(LearnedNamesTest, replaceAnEarlierNameAndItsTime)
{
    this->learn(this->address, "old.example", 100);
    this->pass(90);
    this->learn(this->address, "new.example", 100);
    EXPECT_EQ(this->nameOf(this->address), "new.example");
    EXPECT_EQ(this->m_names.size(), 1u);
    this->pass(99);
    EXPECT_EQ(this->nameOf(this->address), "new.example");
}

TYPED_TEST(LearnedNamesTest, lastAsLongAsTheirRecords)
{
    this->learn(this->address, "example.com", 300);
    this->pass(299);
    EXPECT_EQ(this->nameOf(this->address), "example.com");
    this->m_names.expire();
    EXPECT_EQ(this->m_names.size(), 1u);
    this->pass(1);
    EXPECT_EQ(this->nameOf(this->address), "") << "even before anybody sweeps";
    this->m_names.expire();
    EXPECT_EQ(this->m_names.size(), 0u);
}

TYPED_TEST(LearnedNamesTest, lastForAMinuteAtLeast)
{
    this->learn(this->address, "short.example", 0);
    this->pass(59);
    EXPECT_EQ(this->nameOf(this->address), "short.example");
    this->pass(1);
    EXPECT_EQ(this->nameOf(this->address), "");
}

TYPED_TEST(LearnedNamesTest, lastForADayAtMost)
{
    this->learn(this->address, "long.example", 0xFFFFFFFF);
    this->pass(86'399);
    EXPECT_EQ(this->nameOf(this->address), "long.example");
    this->pass(1);
    EXPECT_EQ(this->nameOf(this->address), "");
}

TYPED_TEST(LearnedNamesTest, areNoLongerThanNamesMayBe)
{
    const std::string longest(253, 'a');
    this->learn(this->address, longest);
    EXPECT_EQ(this->nameOf(this->address), longest);
    this->learn(this->address, std::string(254, 'b'));
    EXPECT_EQ(this->nameOf(this->address), longest);
    this->learn(this->address + 1, std::string(254, 'b'));
    this->learn(this->address + 2, "");
    EXPECT_EQ(this->m_names.size(), 1u);
}

TYPED_TEST(LearnedNamesTest, makeRoomByTheLongestKnown)
{
    static_assert(LearnedNames::maxEntries == 65536);
    for (std::uint32_t i = 0; i < LearnedNames::maxEntries; ++i)
        this->learn(i, "name" + std::to_string(i));
    this->learn(0, "again"); // the youngest now
    EXPECT_EQ(this->m_names.size(), LearnedNames::maxEntries);
    this->learn(LearnedNames::maxEntries, "one more");
    EXPECT_EQ(this->m_names.size(), LearnedNames::maxEntries);
    EXPECT_EQ(this->nameOf(0), "again");
    EXPECT_EQ(this->nameOf(1), "");
    EXPECT_EQ(this->nameOf(2), "name2");
    EXPECT_EQ(this->nameOf(LearnedNames::maxEntries), "one more");
}

TYPED_TEST(LearnedNamesTest, expireOneByOne)
{
    for (std::uint32_t i = 0; i < 100; ++i)
        this->learn(i, "name", 100 + i);
    this->pass(150);
    this->m_names.expire();
    EXPECT_EQ(this->m_names.size(), 49u);
    EXPECT_EQ(this->nameOf(51), "name");
    this->learn(7, "back", 100);
    EXPECT_EQ(this->nameOf(7), "back");
}

TYPED_TEST(LearnedNamesTest, canAllBeForgotten)
{
    this->learn(this->address, "example.com");
    this->m_names.clear();
    EXPECT_EQ(this->m_names.size(), 0u);
    EXPECT_EQ(this->nameOf(this->address), "");
    this->learn(this->address, "example.com");
    EXPECT_EQ(this->nameOf(this->address), "example.com");
}

// A machine that looks up much of one kind keeps its names of the other.
TEST(LearnedNames, ofOneKindDoNotPushOutTheOther)
{
    LearnedNames names;
    const Ipv4 ipv4 = 0x5DB8D822;
    const Ipv6 ipv6 = addressOf<Ipv6>(0x5DB8D822);
    names.learn(ipv4, "four.example", 300);
    EXPECT_EQ(names.nameOf(ipv6), "");
    for (std::uint32_t i = 0; i < LearnedNames::maxEntries; ++i)
        names.learn(addressOf<Ipv6>(i), "six.example", 300);
    names.learn(ipv6, "another.example", 300);
    EXPECT_EQ(names.nameOf(ipv4), "four.example");
    EXPECT_EQ(names.nameOf(ipv6), "another.example");
    EXPECT_EQ(names.size(), LearnedNames::maxEntries + 1);
}

TEST(LearnedNames, ofIpv6GoByAllSixteenBytes)
{
    LearnedNames names;
    const Ipv6 address = addressOf<Ipv6>(1);
    names.learn(address, "example.com", 300);
    for (std::size_t i = 0; i < address.size(); ++i) {
        Ipv6 other = address;
        other[i] ^= 1;
        EXPECT_EQ(names.nameOf(other), "") << i;
    }
    EXPECT_EQ(names.nameOf(address), "example.com");
}

// Workers learn, connection threads ask, flow control expires.
TEST(LearnedNamesThreads, mayLearnAskAndForgetAtOnce)
{
    std::atomic<SteadyTime> now = SteadyTime(seconds(1));
    LearnedNames names([&now] { return now.load(); });
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    const auto isWrong = [](const std::string &name, std::uint32_t i) {
        return !name.empty() && name != "name" + std::to_string(i);
    };
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop) {
            now = now.load() + seconds(20);
            names.expire();
        }
    });
    threads.emplace_back([&] {
        while (!stop) {
            for (std::uint32_t i = 0; i < 50; ++i) {
                if (isWrong(names.nameOf(i), i) || isWrong(names.nameOf(addressOf<Ipv6>(i)), i))
                    ++wrong;
            }
        }
    });
    for (int round = 0; round < 400; ++round) {
        for (std::uint32_t i = 0; i < 50; ++i) {
            names.learn(i, "name" + std::to_string(i), 60);
            names.learn(addressOf<Ipv6>(i), "name" + std::to_string(i), 60);
        }
    }
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(names.size(), 100u);
}

} // namespace
} // namespace ruvo
