#include "tun/proxy_gate.h"

#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

/// A gate whose time passes when the test says so.
class ProxyGateTest : public ::testing::Test
{
protected:
    static SteadyTime at(std::chrono::nanoseconds time) { return SteadyTime(time); }

    void pass(std::chrono::nanoseconds time) { m_now += time.count(); }

    /// Waits for the opening on a thread of its own, which has read its clock when this returns.
    std::future<bool> waitingThread(ProxyGate::Closing closing)
    {
        const int before = m_looks;
        auto opened = std::async(std::launch::async, [this, closing] { return m_gate.openAfterDelay(closing); });
        EXPECT_TRUE(waitUntil([&] { return m_looks > before; }));
        return opened;
    }
    /// It has looked at the clock once more since, and so had its chance.
    void expectShutAfterAnotherLook()
    {
        const int before = m_looks;
        EXPECT_TRUE(waitUntil([&] { return m_looks > before + 1; }));
        EXPECT_FALSE(m_gate.isOpen());
    }

    std::atomic<std::int64_t> m_now = 5'000'000'000'000; // ns
    std::atomic<int> m_looks = 0;
    ProxyGate m_gate{[this] {
        const SteadyTime now = at(std::chrono::nanoseconds(m_now));
        ++m_looks;
        return now;
    }};
};

TEST_F(ProxyGateTest, isOpenAtFirst)
{
    EXPECT_TRUE(m_gate.isOpen());
    EXPECT_FALSE(m_gate.openIfDue()) << "there is nothing to open";
}

TEST_F(ProxyGateTest, staysShutUntilSomebodyOpensIt)
{
    m_gate.close();
    pass(1h);
    EXPECT_FALSE(m_gate.openIfDue());
    EXPECT_FALSE(m_gate.isOpen());
    m_gate.open();
    EXPECT_TRUE(m_gate.isOpen());
}

TEST_F(ProxyGateTest, isOpenedAThousandMillisecondsAfterTheWaitBegan)
{
    const ProxyGate::Closing closing = m_gate.close();
    pass(300ms); // which the reset itself takes
    auto opened = waitingThread(closing);
    pass(999ms);
    expectShutAfterAnotherLook();
    pass(1ms);
    EXPECT_TRUE(opened.get());
    EXPECT_TRUE(m_gate.isOpen());
}

TEST_F(ProxyGateTest, goesByTheSteadyClock)
{
    ProxyGate gate;
    const ProxyGate::Closing closing = gate.close();
    const SteadyTime begin = steadyNow();
    EXPECT_TRUE(gate.openAfterDelay(closing));
    EXPECT_GE(steadyNow() - begin, 1000ms);
}

/// What a thread waits by takes an hour for what the gate's clock takes a second for.
class ProxyGateOfSlowWaits : public ProxyGateTest
{
protected:
    /// Its first look at the clock, which says when to open, comes an hour before the others.
    SteadyTime look()
    {
        const auto now = std::chrono::nanoseconds(m_now);
        return at(m_looks++ == 0 ? now : now - 1h);
    }
    /// A thread that waits: the gate is its own mutex's while it looks, so whoever changes it next finds it waiting.
    std::future<bool> wait(ProxyGate &gate)
    {
        auto opened =
            std::async(std::launch::async, [&gate, closing = gate.close()] { return gate.openAfterDelay(closing); });
        EXPECT_TRUE(waitUntil([this] { return m_looks > 1; }));
        return opened;
    }
    static bool isOver(const std::future<bool> &opened) { return opened.wait_for(20s) == std::future_status::ready; }
};

TEST_F(ProxyGateOfSlowWaits, isOpenedAtMostHalfASecondLate)
{
    static_assert(ProxyGate::defaultLongestWait <= 500ms);
    ProxyGate gate([this] { return look(); });
    auto opened = wait(gate);
    pass(1h + 1s);
    ASSERT_TRUE(isOver(opened)) << "it has not looked at the clock again";
    EXPECT_TRUE(opened.get());
}

TEST_F(ProxyGateOfSlowWaits, isOpenedByAnotherOneWithoutAnotherLookAtTheClock)
{
    ProxyGate gate([this] { return look(); }, 60s);
    auto opened = wait(gate);
    gate.open();
    EXPECT_TRUE(isOver(opened)) << "nobody has told it";
    EXPECT_FALSE(opened.get());
}

TEST_F(ProxyGateOfSlowWaits, isShutAgainWithoutAnotherLookAtTheClock)
{
    ProxyGate gate([this] { return look(); }, 60s);
    auto opened = wait(gate);
    gate.close();
    EXPECT_TRUE(isOver(opened)) << "nobody has told it";
    EXPECT_FALSE(opened.get());
}

TEST_F(ProxyGateTest, isOpenedAtTheEndOfTheClock)
{
    m_now = (SteadyTime::max() - 999ms).time_since_epoch().count();
    auto opened = waitingThread(m_gate.close());
    pass(998ms);
    expectShutAfterAnotherLook();
    pass(1ms);
    EXPECT_TRUE(opened.get());
}

TEST_F(ProxyGateTest, isPlannedToOpenAtTheEndOfTheClock)
{
    m_now = (SteadyTime::max() - 999ms).time_since_epoch().count();
    m_gate.planOpening(m_gate.close());
    pass(998ms);
    EXPECT_FALSE(m_gate.openIfDue());
    pass(1ms);
    EXPECT_TRUE(m_gate.openIfDue());
}

TEST_F(ProxyGateTest, shutAgainDoesNotOpenForTheFirstClosing)
{
    const ProxyGate::Closing firstClosing = m_gate.close();
    auto first = waitingThread(firstClosing);
    pass(900ms);
    const ProxyGate::Closing secondClosing = m_gate.close();
    EXPECT_FALSE(first.get());
    auto second = waitingThread(secondClosing);
    pass(999ms);
    expectShutAfterAnotherLook();
    pass(1ms);
    EXPECT_TRUE(second.get());
    EXPECT_TRUE(m_gate.isOpen());
}

TEST_F(ProxyGateTest, isNotOpenedByAThreadThatComesTooLate)
{
    const ProxyGate::Closing first = m_gate.close();
    m_gate.close();
    pass(1h);
    EXPECT_FALSE(m_gate.openAfterDelay(first));
    EXPECT_FALSE(m_gate.isOpen());

    const ProxyGate::Closing third = m_gate.close();
    m_gate.open();
    EXPECT_FALSE(m_gate.openAfterDelay(third)) << "it is open";
}

TEST_F(ProxyGateTest, openedByAnotherOneEndsTheWait)
{
    auto opened = waitingThread(m_gate.close());
    m_gate.open();
    EXPECT_FALSE(opened.get());
    EXPECT_TRUE(m_gate.isOpen());
}

TEST_F(ProxyGateTest, opensAsPlannedForWhoLooksAgainAndAgain)
{
    m_gate.planOpening(m_gate.close());
    pass(999ms);
    EXPECT_FALSE(m_gate.openIfDue());
    EXPECT_FALSE(m_gate.isOpen());
    pass(1ms);
    EXPECT_TRUE(m_gate.openIfDue());
    EXPECT_TRUE(m_gate.isOpen());
    EXPECT_FALSE(m_gate.openIfDue()) << "once";
}

TEST_F(ProxyGateTest, forgetsAPlanWhenItIsShutAgain)
{
    const ProxyGate::Closing first = m_gate.close();
    m_gate.planOpening(first);
    pass(900ms);
    const ProxyGate::Closing second = m_gate.close();
    m_gate.planOpening(first); // too late
    pass(1h);
    EXPECT_FALSE(m_gate.openIfDue());
    m_gate.planOpening(second);
    pass(1s);
    EXPECT_TRUE(m_gate.openIfDue());
}

TEST_F(ProxyGateTest, forgetsAPlanWhenItIsOpened)
{
    m_gate.planOpening(m_gate.close());
    m_gate.open();
    m_gate.close();
    pass(1h);
    EXPECT_FALSE(m_gate.openIfDue());
    EXPECT_FALSE(m_gate.isOpen());
}

// For the sanitizers: everything at once.
TEST_F(ProxyGateTest, isShutOpenedAndAskedByManyThreads)
{
    std::atomic<bool> stops = false;
    std::atomic<int> looks = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stops)
                looks += m_gate.isOpen() ? 1 : 0;
        });
        threads.emplace_back([&] {
            while (!stops) {
                pass(100ms);
                m_gate.openIfDue();
            }
        });
    }
    for (int i = 0; i < 15; ++i) {
        const ProxyGate::Closing closing = m_gate.close();
        auto opened = std::async(std::launch::async, [&] { return m_gate.openAfterDelay(closing); });
        if (i % 3 == 0)
            m_gate.planOpening(closing);
        if (i % 5 == 0)
            m_gate.open();
        opened.get();
        EXPECT_TRUE(m_gate.isOpen());
    }
    stops = true;
    threads.clear();
    EXPECT_GT(looks, 0);
}

} // namespace
} // namespace ruvo::test
