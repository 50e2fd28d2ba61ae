// The proxy after a reset: the checks that begin then, and the time that it has to come up.

#include "proxy_health_fixture.h"

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(ProxyHealthTest, aResetForgetsFailures)
{
    fail(4);
    fail(5, directPort);
    reset();
    checkInSeries(ProxySign::Accepted);
    losePatience();
    fail(4);
    EXPECT_THAT(due(), IsEmpty());
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, betweenResetAndReadinessNothingIsChecked)
{
    m_health.noteReset(m_now);
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
            endCheck(ProxySign::Failed, port);
        }
    }
    EXPECT_THAT(checks, ElementsAre(ready, ready + 1s, ready + 2s, ready + 3s, ready + 4s));
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aProxyThatTakesFourSecondsToComeUpIsNotDead)
{
    m_health.noteReset(m_now);
    const SteadyTime up = m_now + 4s;
    const SteadyTime gate = m_now + 1100ms;
    bool isReady = false;
    for (; m_now < up + 10s; m_now += 10ms) {
        if (!isReady && m_now >= gate) {
            m_health.noteReady(m_now);
            isReady = true;
        }
        const ProxySign sign = m_now < up ? ProxySign::Failed : ProxySign::Accepted;
        m_health.note(proxyPort, {sign, m_now});
        m_health.note(directPort, {sign, m_now});
        for (const std::uint16_t port : due())
            endCheck(sign, port);
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

TEST_F(ProxyHealthTest, failuresSuspectNobodyWhileASlowSeriesGoesOn)
{
    reset();
    for (int i = 0; i < 4; ++i) {
        EXPECT_THAT(due(), ElementsAre(proxyPort));
        m_now += 2s; // a mute proxy
        endCheck(ProxySign::Failed);
        fail(10);
        fail(10, directPort);
    }
    checkInSeries(ProxySign::Accepted);
    EXPECT_THAT(due(), IsEmpty());
    fail(4, directPort);
    EXPECT_THAT(due(), IsEmpty());
}

TEST_F(ProxyHealthTest, aDirectInboundThatOpensLaterThanTheMainOneIsNotDead)
{
    reset();
    const SteadyTime ready = m_now;
    checkInSeries(ProxySign::Accepted);
    for (m_now = ready; m_now < ready + 1s; m_now += 10ms) {
        fail(1, directPort);
        succeed();
        EXPECT_THAT(due(), IsEmpty());
    }
    for (; m_now < ready + 60s; m_now += 10ms) {
        succeed(directPort);
        EXPECT_THAT(due(), IsEmpty());
    }
}

TEST_F(ProxyHealthTest, afterAFirstCheckThatMetTheOldProxyTheNewOneHasTimeAllTheSame)
{
    reset();
    const SteadyTime ready = m_now;
    checkInSeries(ProxySign::Accepted);
    for (m_now = ready + 100ms; m_now < ready + ProxyHealth::patience; m_now += 10ms) {
        fail(1);
        fail(1, directPort);
        EXPECT_THAT(due(), IsEmpty());
    }
    fail(4);
    EXPECT_THAT(due(), IsEmpty()) << "what failed before tells nothing of the proxy now";
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
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

TEST_F(ProxyHealthTest, aCheckThatSucceedsEndsTheSeriesWhateverTheTrafficSawMeanwhile)
{
    reset();
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    m_now += 20ms;
    succeed();
    m_now += 20ms;
    endCheck(ProxySign::Accepted);
    for (int second = 0; second < 60; ++second, m_now += 1s)
        EXPECT_THAT(due(), IsEmpty());
    fail(5, directPort);
    EXPECT_THAT(due(), ElementsAre(directPort)) << "failures count again";
}

TEST_F(ProxyHealthTest, aCheckOfTheSeriesThatFailsCountsNothingIfTheTrafficSucceededMeanwhile)
{
    reset();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    succeed();
    endCheck(ProxySign::Failed);
    m_now += 1s;
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSlowCheckDelaysTheNextOneOfItsSeries)
{
    reset();
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    m_now += 2s;
    EXPECT_THAT(due(), IsEmpty());
    endCheck(ProxySign::Failed);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSecondResetBeginsTheSeriesAnew)
{
    reset();
    for (int i = 0; i < 4; ++i)
        checkInSeries(ProxySign::Failed);
    m_health.noteReset(m_now);
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
    m_health.noteReset(m_now);
    endCheck(ProxySign::Failed);
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
    endCheck(ProxySign::Accepted);
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
    losePatience();
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

} // namespace
} // namespace ruvo
