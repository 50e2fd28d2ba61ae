#include "nat/udp_waiting_flows.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ruvo {
namespace {

constexpr Endpoint dns{0x08080808, 53};

FlowKey flow(int number)
{
    return {{0x0A060701, static_cast<std::uint16_t>(number)}, {0x0A060702, 53}};
}

class UdpWaitingFlowsTest : public ::testing::Test
{
protected:
    bool add(int number, const std::string &text = "x", const Endpoint &target = dns)
    {
        const std::vector<std::uint8_t> bytes(text.begin(), text.end());
        return m_flows.add(flow(number), target, bytes);
    }
    std::vector<std::string> take(int number)
    {
        std::vector<std::string> texts;
        for (const std::vector<std::uint8_t> &datagram : m_flows.take(flow(number)))
            texts.emplace_back(datagram.begin(), datagram.end());
        return texts;
    }
    /// The client port of the flow that is opened next; 0 if there is none.
    int beginOpening()
    {
        const auto opening = m_flows.beginOpening();
        return opening ? opening->key.source.port : 0;
    }

    UdpWaitingFlows m_flows;
};

TEST_F(UdpWaitingFlowsTest, keepsDatagramsInOrder)
{
    EXPECT_TRUE(add(1, "first"));
    EXPECT_FALSE(add(1, "second"));
    EXPECT_FALSE(add(1, ""));
    EXPECT_FALSE(add(1, "third"));
    EXPECT_EQ(take(1), (std::vector<std::string>{"first", "second", "", "third"}));
    EXPECT_EQ(m_flows.size(), 0u);
}

TEST_F(UdpWaitingFlowsTest, copiesWhatItKeeps)
{
    std::vector<std::uint8_t> bytes{'a'};
    m_flows.add(flow(1), dns, bytes);
    bytes[0] = 'b';
    EXPECT_EQ(take(1), std::vector<std::string>{"a"});
}

TEST_F(UdpWaitingFlowsTest, keepsFlowsApart)
{
    add(1, "one");
    add(2, "two");
    m_flows.add({{0x0A060701, 1}, {0x0A060702, 54}}, dns, {});
    m_flows.add({{0x0A060701, 1}, {0x0A060703, 53}}, dns, {});
    m_flows.add({{0x0A060702, 1}, {0x0A060702, 53}}, dns, {});
    EXPECT_EQ(m_flows.size(), 5u);
    EXPECT_EQ(take(2), std::vector<std::string>{"two"});
    EXPECT_EQ(take(1), std::vector<std::string>{"one"});
    EXPECT_TRUE(take(1).empty());
}

TEST_F(UdpWaitingFlowsTest, takesOverWhatWaitedElsewhere)
{
    UdpWaitingFlows elsewhere;
    const std::vector<std::uint8_t> bytes{'a'};
    for (int i = 0; i < 2; ++i)
        elsewhere.add(flow(1), dns, bytes);
    EXPECT_TRUE(elsewhere.contains(flow(1)));
    EXPECT_TRUE(m_flows.takeOver(flow(1), dns, elsewhere.take(flow(1))));
    EXPECT_FALSE(elsewhere.contains(flow(1)));
    EXPECT_TRUE(m_flows.contains(flow(1)));
    EXPECT_FALSE(add(1, "b"));
    EXPECT_EQ(beginOpening(), 1);
    EXPECT_EQ(take(1), (std::vector<std::string>{"a", "a", "b"}));

    for (int i = 0; i < 60; ++i)
        add(2, "old");
    for (int i = 0; i < 10; ++i)
        elsewhere.add(flow(2), dns, bytes);
    EXPECT_FALSE(m_flows.takeOver(flow(2), dns, elsewhere.take(flow(2))));
    const std::vector<std::string> kept = take(2);
    ASSERT_EQ(kept.size(), 64u);
    EXPECT_EQ(kept.front(), "old");
    EXPECT_EQ(kept.back(), "a");
}

TEST_F(UdpWaitingFlowsTest, keepsTheNewest64DatagramsOfAFlow)
{
    for (int i = 0; i < 70; ++i)
        add(1, std::to_string(i));
    const std::vector<std::string> kept = take(1);
    ASSERT_EQ(kept.size(), 64u);
    EXPECT_EQ(kept.front(), "6");
    EXPECT_EQ(kept.back(), "69");
}

TEST_F(UdpWaitingFlowsTest, opensFlowsInTheOrderInWhichTheyCame)
{
    add(3);
    add(1, "x", {0x01010101, 443});
    add(2);
    add(3); // known: keeps its place
    EXPECT_EQ(beginOpening(), 3);
    const auto opening = m_flows.beginOpening();
    ASSERT_TRUE(opening);
    EXPECT_EQ(opening->key, flow(1));
    EXPECT_EQ(opening->target, (Endpoint{0x01010101, 443}));
    EXPECT_EQ(beginOpening(), 2);
    EXPECT_EQ(beginOpening(), 0) << "each is opened once";
}

TEST_F(UdpWaitingFlowsTest, stillTakesDatagramsWhileTheFlowIsOpened)
{
    add(1, "first");
    EXPECT_EQ(beginOpening(), 1);
    EXPECT_FALSE(add(1, "second"));
    EXPECT_EQ(beginOpening(), 0);
    EXPECT_EQ(take(1), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(add(1)) << "new again";
    EXPECT_EQ(beginOpening(), 1);
}

TEST_F(UdpWaitingFlowsTest, dropsTheOldestOf1024Flows)
{
    for (int i = 1; i <= 1024; ++i)
        EXPECT_TRUE(add(i));
    EXPECT_EQ(m_flows.size(), 1024u);
    EXPECT_FALSE(add(1)) << "one that is known costs nobody its place";
    EXPECT_EQ(m_flows.size(), 1024u);
    EXPECT_TRUE(add(2000));
    EXPECT_TRUE(add(2001));
    EXPECT_EQ(m_flows.size(), 1024u);
    EXPECT_TRUE(take(1).empty());
    EXPECT_TRUE(take(2).empty());
    EXPECT_EQ(beginOpening(), 3);
    EXPECT_EQ(take(2001).size(), 1u);
}

TEST_F(UdpWaitingFlowsTest, doesNotDropAFlowThatIsBeingOpened)
{
    for (int i = 1; i <= 1024; ++i)
        add(i);
    EXPECT_EQ(beginOpening(), 1);
    EXPECT_TRUE(add(2000));
    EXPECT_FALSE(add(1)) << "a second opening would put the first one's association away";
    EXPECT_TRUE(take(2).empty());
    EXPECT_EQ(take(1).size(), 2u);
}

TEST_F(UdpWaitingFlowsTest, forgetsATakenFlowsPlace)
{
    add(1);
    add(2);
    take(1);
    EXPECT_EQ(beginOpening(), 2);
    EXPECT_EQ(beginOpening(), 0);
}

TEST_F(UdpWaitingFlowsTest, isEmptyAfterClear)
{
    add(1);
    add(2);
    beginOpening();
    m_flows.clear();
    EXPECT_EQ(m_flows.size(), 0u);
    EXPECT_EQ(beginOpening(), 0);
    EXPECT_TRUE(take(1).empty());
    EXPECT_TRUE(add(1));
}

} // namespace
} // namespace ruvo
