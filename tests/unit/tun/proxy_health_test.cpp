#include "proxy_health_fixture.h"

#include "support/wait_until.h"

#include <atomic>
#include <functional>
#include <new>
#include <thread>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
        health.note(proxyPort, {ProxySign::Failed, m_now});
    EXPECT_EQ(health.takeDueCheck(m_now), proxyPort);
    EXPECT_EQ(health.takeDueCheck(m_now), std::nullopt);
    health.noteChecked(proxyPort, ProxySighting{ProxySign::Failed, m_now});
    EXPECT_THAT(deaths, ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, anotherPortIsNobodysBusiness)
{
    fail(10, 8080);
    endCheck(ProxySign::Failed, 8080);
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
    endCheck(ProxySign::Accepted);
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
    endCheck(ProxySign::Failed);
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
    endCheck(ProxySign::Failed);
    EXPECT_THAT(m_deaths, IsEmpty());
    EXPECT_THAT(due(), ElementsAre(proxyPort));
}

TEST_F(ProxyHealthTest, aCheckThatTellsNothingIsMadeAgainAtTheNextFailure)
{
    fail(5);
    due();
    endCheck(std::nullopt);
    EXPECT_THAT(due(), IsEmpty());
    fail(1);
    EXPECT_THAT(due(), ElementsAre(proxyPort));
    EXPECT_THAT(m_deaths, IsEmpty());
}

TEST_F(ProxyHealthTest, doesWithoutACallback)
{
    ProxyHealth health(proxyPort, directPort, {});
    for (int i = 0; i < 5; ++i)
        health.note(proxyPort, {ProxySign::Failed, m_now});
    EXPECT_EQ(health.takeDueCheck(m_now), proxyPort);
    health.noteChecked(proxyPort, ProxySighting{ProxySign::Failed, m_now});
    EXPECT_EQ(health.takeDueCheck(m_now), std::nullopt);
}

TEST_F(ProxyHealthTest, ofADeathThatNobodyCouldBeToldOfTheNextFailuresTell)
{
    bool hasMemory = false;
    ProxyHealth health(proxyPort, directPort, [&](std::uint16_t port) {
        if (!hasMemory)
            throw std::bad_alloc();
        m_deaths.push_back(port);
    });
    const auto dieAt = [&](std::uint16_t port) {
        for (int i = 0; i < 5; ++i)
            health.note(port, {ProxySign::Failed, m_now});
        EXPECT_EQ(health.takeDueCheck(m_now), port);
        EXPECT_NO_THROW(health.noteChecked(port, ProxySighting{ProxySign::Failed, m_now}));
    };
    dieAt(proxyPort);
    EXPECT_THAT(m_deaths, IsEmpty());
    hasMemory = true;
    dieAt(directPort);
    dieAt(proxyPort);
    EXPECT_THAT(m_deaths, ElementsAre(directPort)) << "which silences the other one";
}

/// Connections of several threads against the thread that has the checks made, until `isOver`.
class ProxyHealthThreads : public ::testing::Test
{
protected:
    static constexpr std::uint16_t proxyPort = 10808;
    static constexpr std::uint16_t directPort = 20808;

    void run(bool isAlive, const std::function<bool()> &isOver)
    {
        std::atomic<bool> stop = false;
        std::vector<std::jthread> threads;
        for (const std::uint16_t port : {proxyPort, proxyPort, directPort}) {
            threads.emplace_back([this, &stop, port, isAlive] {
                for (unsigned i = 0; !stop; ++i, ++m_connections)
                    m_health.note(port, {isAlive && i % 3 != 0 ? ProxySign::Accepted : ProxySign::Failed, seen});
            });
        }
        threads.emplace_back([this, &stop, isAlive] {
            while (!stop) {
                while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(seen))
                    m_health.noteChecked(*port,
                                         ProxySighting{isAlive ? ProxySign::Accepted : ProxySign::Failed, seen});
                std::this_thread::yield();
            }
        });
        EXPECT_TRUE(test::waitUntil(isOver));
        stop = true;
    }

    static constexpr SteadyTime seen{1s};

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
