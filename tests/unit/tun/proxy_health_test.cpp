#include "tun/proxy_health.h"

#include "support/wait_until.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint16_t proxyPort = 10808;
constexpr std::uint16_t directPort = 20808;

class ProxyHealthTest : public ::testing::Test
{
protected:
    void fail(int count, std::uint16_t port = proxyPort)
    {
        for (int i = 0; i < count; ++i)
            m_health.note(port, ProxySign::Failed);
    }
    void succeed(std::uint16_t port = proxyPort) { m_health.note(port, ProxySign::Accepted); }
    /// Which ports are to be checked now.
    std::vector<std::uint16_t> due()
    {
        std::vector<std::uint16_t> ports;
        while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(m_now))
            ports.push_back(*port);
        return ports;
    }
    /// A death of the port, from its first failure to the check that fails.
    void die(std::uint16_t port = proxyPort)
    {
        fail(5, port);
        EXPECT_THAT(due(), ElementsAre(port));
        m_health.noteChecked(port, ProxySign::Failed);
    }
    void reset()
    {
        m_health.noteReset();
        m_now += 1s;
        m_health.noteReady(m_now);
    }
    /// A check of the series, which is due now, and then a second.
    void checkInSeries(std::optional<ProxySign> sign)
    {
        EXPECT_THAT(due(), ElementsAre(proxyPort));
        m_health.noteChecked(proxyPort, sign);
        m_now += 1s;
    }

    SteadyTime m_now{1000s};
    std::vector<std::uint16_t> m_deaths;
    ProxyHealth m_health{proxyPort, directPort, [this](std::uint16_t port) { m_deaths.push_back(port); }};
};

TEST_F(ProxyHealthTest, aPortIsCheckedAfterFiveFailures)
{
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    EXPECT_THAT(m_deaths, IsEmpty()) << "it may have been their destinations";
}

TEST_F(ProxyHealthTest, aSuccessBeginsTheFailuresAnew)
{
    fail(4);
    succeed();
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, eachPortHasItsOwnFailures)
{
    fail(4);
    fail(4, directPort);
    succeed(directPort);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    fail(5, directPort);
    EXPECT_THAT(due(), ElementsAre(directPort));
}

TEST_F(ProxyHealthTest, twoInboundsOnOnePortAreOne)
{
    std::vector<std::uint16_t> deaths;
    ProxyHealth health(proxyPort, proxyPort, [&](std::uint16_t port) { deaths.push_back(port); });
    for (int i = 0; i < 5; ++i)
        health.note(proxyPort, ProxySign::Failed);
    EXPECT_EQ(health.takeDueCheck(m_now), proxyPort);
    EXPECT_EQ(health.takeDueCheck(m_now), std::nullopt);
    health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_THAT(deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, anotherPortIsNobodysBusiness)
{
    fail(10, 8080);
    m_health.noteChecked(8080, ProxySign::Failed);
    EXPECT_THAT(due(), IsEmpty());
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, withoutConnectionsNothingIsEverDue)
{
    for (int hour = 0; hour < 100; ++hour, m_now += 1h)
        EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, aPortHasOneCheckAtATime)
{
    fail(5);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    fail(20);
    EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, aCheckThatSucceedsBeginsTheFailuresAnew)
{
    fail(5);
    due();
    fail(4);
    m_health.noteChecked(proxyPort, ProxySign::Accepted);
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, aCheckThatFailsIsTheDeath)
{
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, ofOneDeathIsToldOnce)
{
    die();
    fail(100);
    EXPECT_THAT(due(), IsEmpty()) << "it is known to be dead";
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, whatHasLivedAgainMayDieAgain)
{
    die();
    succeed();
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort, proxyPort));
}

TEST_F(ProxyHealthTest, ofTheSecondPortThatDiesNobodyIsTold)
{
    die();
    die(directPort);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, thatPortIsToldOfOnceTheOtherOneLives)
{
    die(directPort);
    die(proxyPort);
    die(proxyPort); // it keeps counting
    EXPECT_THAT(m_deaths, ElementsAre(directPort));
    succeed(directPort);
    EXPECT_THAT(m_deaths, ElementsAre(directPort)) << "not by itself";
    die(proxyPort);
    EXPECT_THAT(m_deaths, ElementsAre(directPort, proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessSparesTheCheckThatIsDue)
{
    fail(5);
    succeed();
    EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, aSuccessDuringTheCheckVoidsItsFailure)
{
    fail(5);
    due();
    succeed();
    m_health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, afterAVoidCheckTheFailuresSinceCount)
{
    fail(5);
    due();
    succeed();
    fail(5);
    EXPECT_THAT(due(), IsEmpty()) << "one check at a time";
    m_health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aCheckThatTellsNothingIsMadeAgainAtTheNextFailure)
{
    fail(5);
    due();
    m_health.noteChecked(proxyPort, std::nullopt);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, doesWithoutACallback)
{
    ProxyHealth health(proxyPort, directPort, {});
    for (int i = 0; i < 5; ++i)
        health.note(proxyPort, ProxySign::Failed);
    EXPECT_EQ(health.takeDueCheck(m_now), proxyPort);
    health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_EQ(health.takeDueCheck(m_now), std::nullopt);
}

TEST_F(ProxyHealthTest, aResetForgetsFailures)
{
    fail(4);
    fail(5, directPort);
    reset();
    checkInSeries(ProxySign::Accepted);
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, betweenResetAndReadinessNothingIsChecked)
{
    m_health.noteReset();
    fail(10);
    fail(10, directPort);
    for (int i = 0; i < 200; ++i, m_now += 10ms)
        EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, afterAResetTheMainInboundIsCheckedEverySecond)
{
    reset();
    const SteadyTime ready = m_now;
    std::vector<SteadyTime> checks;
    for (; m_now < ready + 10s; m_now += 10ms) {
        for (const std::uint16_t port : due()) {
            EXPECT_EQ(port, proxyPort);
            checks.push_back(m_now);
            m_health.noteChecked(port, ProxySign::Failed);
        }
    }
    EXPECT_THAT(checks, ElementsAre(ready, ready + 1s, ready + 2s, ready + 3s, ready + 4s));
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aProxyThatTakesFourSecondsToComeUpIsNotDead)
{
    m_health.noteReset();
    const SteadyTime up = m_now + 4s;
    const SteadyTime gate = m_now + 1100ms;
    bool isReady = false;
    for (; m_now < up + 10s; m_now += 10ms) {
        if (!isReady && m_now >= gate) {
            m_health.noteReady(m_now);
            isReady = true;
        }
        const ProxySign sign = m_now < up ? ProxySign::Failed : ProxySign::Accepted;
        m_health.note(proxyPort, sign);
        m_health.note(directPort, sign);
        for (const std::uint16_t port : due())
            m_health.noteChecked(port, sign);
    }
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, failuresSuspectNobodyUntilTheSeriesIsOver)
{
    reset();
    for (int i = 0; i < 4; ++i) {
        checkInSeries(ProxySign::Failed);
        fail(10);
        fail(10, directPort);
    }
    checkInSeries(ProxySign::Accepted);
    EXPECT_THAT(due(), IsEmpty()) << "what failed before tells nothing of the proxy now";
    fail(5, directPort);
    EXPECT_THAT(due(), ElementsAre(directPort));
}

TEST_F(ProxyHealthTest, theFirstCheckThatSucceedsEndsTheSeries)
{
    reset();
    checkInSeries(ProxySign::Failed);
    checkInSeries(ProxySign::Accepted);
    for (int second = 0; second < 60; ++second, m_now += 1s)
        EXPECT_THAT(due(), IsEmpty());
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessOfTheTrafficBeginsTheFiveChecksAnew)
{
    reset();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    succeed();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessOfTheTrafficDoesNotEndTheSeries)
{
    reset();
    checkInSeries(ProxySign::Failed);
    succeed(); // the old proxy's, told late
    fail(10);
    fail(10, directPort);
    checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    checkInSeries(ProxySign::Accepted);
}

TEST_F(ProxyHealthTest, aSlowCheckDelaysTheNextOneOfItsSeries)
{
    reset();
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    m_now += 2s;
    EXPECT_THAT(due(), IsEmpty());
    m_health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSecondResetBeginsTheSeriesAnew)
{
    reset();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    m_health.noteReset();
    EXPECT_THAT(due(), IsEmpty());
    m_now += 1s;
    m_health.noteReady(m_now);
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aCheckFromBeforeTheResetDoesNotMatter)
{
    fail(5);
    due();
    m_health.noteReset();
    m_health.noteChecked(proxyPort, ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    m_health.noteReady(m_now);
    checkInSeries(ProxySign::Failed);
}

TEST_F(ProxyHealthTest, aCheckFromBeforeTheResetThatTakesLongEndsNoSeries)
{
    fail(5);
    due();
    reset();
    EXPECT_THAT(due(), IsEmpty()) << "one check at a time";
    m_health.noteChecked(proxyPort, ProxySign::Accepted);
    for (int i = 0; i < 5; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, ofAProxyThatStaysDeadAfterAResetIsToldOnce)
{
    reset();
    for (int i = 0; i < 5; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
    fail(20);
    m_now += 60s;
    EXPECT_THAT(due(), IsEmpty());
    reset();
    for (int i = 0; i < 5; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort)) << "it has not lived in between";
}

TEST_F(ProxyHealthTest, ofAProxyWhoseOtherPortIsKnownToBeDeadNobodyIsToldAfterAReset)
{
    die(directPort);
    reset();
    for (int i = 0; i < 5; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(directPort));
}

TEST_F(ProxyHealthTest, aSeriesThatRevivesThePortMakesTheNextDeathNews)
{
    die();
    reset();
    checkInSeries(ProxySign::Accepted);
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort, proxyPort));
}

TEST_F(ProxyHealthTest, aSeriesWithACheckThatTellsNothingTellsOfNoDeath)
{
    reset();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    checkInSeries(std::nullopt);
    EXPECT_THAT(m_deaths, IsEmpty());
    EXPECT_THAT(due(), IsEmpty()) << "it is over all the same";
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

/// Connections of several threads against the thread that has the checks made, until `isOver`.
class ProxyHealthThreads : public ::testing::Test
{
protected:
    void run(bool isAlive, const std::function<bool()> &isOver)
    {
        std::atomic<bool> stop = false;
        std::vector<std::jthread> threads;
        for (const std::uint16_t port : {proxyPort, proxyPort, directPort}) {
            threads.emplace_back([this, &stop, port, isAlive] {
                for (unsigned i = 0; !stop; ++i, ++m_connections)
                    m_health.note(port, isAlive && i % 3 != 0 ? ProxySign::Accepted : ProxySign::Failed);
            });
        }
        threads.emplace_back([this, &stop, isAlive] {
            while (!stop) {
                while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(SteadyTime(1s)))
                    m_health.noteChecked(*port, isAlive ? ProxySign::Accepted : ProxySign::Failed);
                std::this_thread::yield();
            }
        });
        EXPECT_TRUE(test::waitUntil(isOver));
        stop = true;
    }

    std::atomic<int> m_connections = 0;
    std::atomic<int> m_deaths = 0;
    ProxyHealth m_health{proxyPort, directPort, [this](std::uint16_t) { ++m_deaths; }};
};

TEST_F(ProxyHealthThreads, tellOfTheDeathOnce)
{
    run(true, [this] { return m_connections > 20'000; });
    EXPECT_EQ(m_deaths, 0);
    run(false, [this] { return m_connections > 40'000 && m_deaths > 0; });
    EXPECT_EQ(m_deaths, 1);
}

} // namespace
} // namespace ruvo
