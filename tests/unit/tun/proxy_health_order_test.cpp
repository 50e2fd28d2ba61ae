// What counts is when something was seen, not when it is told: of one inbound, and of one against the other.

#include "proxy_health_fixture.h"

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A connection that was let in, and whose request nobody answers, is told of when it is given up, or when the proxy
// is killed.

TEST_F(ProxyHealthTest, ofAProxyThatHangsIsToldOnceThoughItHadLetConnectionsIn)
{
    const SteadyTime letIn = m_now;
    m_now += 1s;
    die();
    for (int second = 0; second < 60; ++second, m_now += 1s) {
        succeedAt(letIn);
        fail(5);
        for (const std::uint16_t port : due())
            endCheck(ProxySign::Failed, port);
    }
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
    succeedAt(m_now);
    die();
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort, proxyPort)) << "that one was let in again";
}

TEST_F(ProxyHealthTest, aSuccessToldLateLeavesTheFailuresSince)
{
    const SteadyTime letIn = m_now;
    m_now += 1s;
    fail(4);
    succeedAt(letIn);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    succeedAt(letIn);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessToldLateBeatsTheFailuresBeforeIt)
{
    fail(3);
    m_now += 1s;
    const SteadyTime letIn = m_now;
    m_now += 1s;
    fail(1);
    succeedAt(letIn);
    fail(3);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessToldLateVoidsNoCheck)
{
    const SteadyTime letIn = m_now;
    m_now += 1s;
    fail(5);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    succeedAt(letIn);
    endCheck(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessAmongTheFailuresVoidsTheirCheckThoughItIsToldLate)
{
    fail(3);
    m_now += 1s;
    const SteadyTime letIn = m_now;
    m_now += 1s;
    fail(2);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    succeedAt(letIn);
    endCheck(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    fail(2);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aSuccessSinceTheCheckBeganVoidsItWhateverHasFailedSince)
{
    fail(5);
    due();
    m_now += 1s;
    const SteadyTime letIn = m_now;
    m_now += 1s;
    fail(5);
    succeedAt(letIn);
    endCheck(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    EXPECT_THAT(due(), ElementsAre(proxyPort)) << "of the failures since";
}

TEST_F(ProxyHealthTest, aSuccessFromBeforeTheResetIsTheOldProxys)
{
    die();
    m_now += 1s;
    const SteadyTime letIn = m_now; // it lives again
    m_now += 1s;
    reset();
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    succeedAt(letIn);
    endCheck(ProxySign::Failed);
    m_now += 1s;
    for (int i = 0; i < 3; ++i)
        checkInSeries(ProxySign::Failed);
    succeedAt(letIn);
    checkInSeries(ProxySign::Failed);
    m_now += 60s;
    EXPECT_THAT(due(), IsEmpty()) << "five checks, none of them void";
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort)) << "it was reported dead, and nothing of this proxy says otherwise";
}

TEST_F(ProxyHealthTest, aSuccessToldLateBeatsTheChecksOfTheSeriesBeforeIt)
{
    reset();
    checkInSeries(ProxySign::Failed);
    checkInSeries(ProxySign::Failed);
    const SteadyTime letIn = m_now - 500ms;
    checkInSeries(ProxySign::Failed);
    succeedAt(letIn);
    for (int i = 0; i < 3; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(proxyPort));
}

// A death silences the other port only as long as that one has not been seen to live.

TEST_F(ProxyHealthTest, aDirectInboundThatIsNeverThereIsToldOfOnceAndSilencesNobody)
{
    die(directPort);
    m_now += 1s;
    succeed();
    for (int death = 1; death <= 3; ++death) {
        m_now += 1s;
        die(proxyPort);
        EXPECT_EQ(m_deaths.size(), 1U + static_cast<unsigned>(death));
        m_now += 1s;
        fail(100, directPort);
        EXPECT_THAT(due(), IsEmpty());
        succeed();
    }
    EXPECT_THAT(m_deaths, ElementsAre(directPort, proxyPort, proxyPort, proxyPort));
}

TEST_F(ProxyHealthTest, thatTheOtherPortLivedBeforeTheDeathDoesNotMatter)
{
    const SteadyTime letIn = m_now;
    m_now += 1s;
    die(directPort);
    succeedAt(letIn, proxyPort);
    die(proxyPort);
    EXPECT_THAT(m_deaths, ElementsAre(directPort));
}

TEST_F(ProxyHealthTest, afterAResetTheMainInboundIsNotSilencedEither)
{
    die(directPort);
    succeed();
    reset();
    for (int i = 0; i < 5; ++i)
        checkInSeries(ProxySign::Failed);
    EXPECT_THAT(m_deaths, ElementsAre(directPort, proxyPort));
}

} // namespace
} // namespace ruvo
