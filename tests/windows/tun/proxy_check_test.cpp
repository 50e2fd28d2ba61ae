#include "tun/proxy_check.h"

#include "windows/nat/nat_test.h"
#include "windows/socks5/mute_port.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Checks of a proxy's two inbounds, with time that passes when the test says so.
class ProxyCheckTest : public NatTest
{
protected:
    void TearDown() override
    {
        m_check->stop();
        NatTest::TearDown();
    }
    void makeCheck(std::uint16_t port, std::uint16_t directPort = 1, const std::wstring &host = L"127.0.0.1")
    {
        m_proxyPort = port;
        m_health = std::make_unique<ProxyHealth>(port, directPort, [this](std::uint16_t dead) {
            const std::lock_guard lock(m_mutex);
            m_deaths.push_back(dead);
        });
        m_check = std::make_unique<ProxyCheck>(host, m_port, *m_health);
    }
    void fail(int count) { fail(count, m_proxyPort); }
    void fail(int count, std::uint16_t port)
    {
        for (int i = 0; i < count; ++i)
            m_health->note(port, ProxySign::Failed);
    }
    /// A proxy that answers `method` to the greeting and waits for the end; then `m_isOver`.
    void startProxy(const QByteArray &method)
    {
        m_proxy = std::make_unique<ParallelProxy>([=, this](ProxyConnection &client, int) {
            m_greeting = client.receive(3);
            client.send(method);
            m_rest = client.receive(1);
            m_isOver.set();
        });
        makeCheck(m_proxy->port());
    }
    void poll() { m_check->poll(m_now); }
    std::vector<std::uint16_t> deaths()
    {
        const std::lock_guard lock(m_mutex);
        return m_deaths;
    }
    void expectDeath()
    {
        EXPECT_TRUE(waitUntil([this] { return !deaths().empty(); }));
        EXPECT_THAT(deaths(), ElementsAre(m_proxyPort));
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    }
    /// Only the inbound that somebody answers at is due to be checked again after five failures, and not after four.
    void expectAlive()
    {
        EXPECT_THAT(deaths(), IsEmpty());
        fail(4);
        EXPECT_EQ(m_health->takeDueCheck(m_now), std::nullopt);
        fail(1);
        EXPECT_EQ(m_health->takeDueCheck(m_now), m_proxyPort);
    }
    /// The proxy is there but nobody answers: it is dead after two seconds, and not before.
    void expectPatience()
    {
        fail(5);
        poll();
        m_now += ProxyCheck::timeout - 1ms;
        poll();
        EXPECT_THAT(deaths(), IsEmpty());
        EXPECT_EQ(m_port.inFlight(), 1);
        m_now += 1ms;
        poll();
        EXPECT_THAT(deaths(), ElementsAre(m_proxyPort)) << "from inside poll";
        expectDeath();
    }

    SteadyTime m_now = steadyNow();
    std::uint16_t m_proxyPort = 0;
    std::unique_ptr<ParallelProxy> m_proxy;
    QByteArray m_greeting;
    QByteArray m_rest;
    Signal m_isOver;
    std::unique_ptr<ProxyHealth> m_health;
    std::unique_ptr<ProxyCheck> m_check;

private:
    std::mutex m_mutex;
    std::vector<std::uint16_t> m_deaths;
};

TEST_F(ProxyCheckTest, greetsAndAsksForNothing)
{
    startProxy(QByteArray::fromHex("0500"));
    fail(5);
    poll();
    ASSERT_TRUE(m_isOver.wait()); // the outcome has been told before the connection ends
    EXPECT_EQ(m_greeting, QByteArray::fromHex("050100"));
    EXPECT_EQ(m_rest, QByteArray());
    expectAlive();
    EXPECT_EQ(m_proxy->connections(), 1);
}

TEST_F(ProxyCheckTest, failsWithAnotherMethod)
{
    startProxy(QByteArray::fromHex("05ff"));
    fail(5);
    poll();
    expectDeath();
    EXPECT_TRUE(m_isOver.wait());
}

TEST_F(ProxyCheckTest, failsWhenItIsRefused)
{
    makeCheck(closedPort());
    fail(5);
    poll();
    expectDeath();
}

TEST_F(ProxyCheckTest, givesAMuteProxyTwoSeconds)
{
    const Socket mute = listeningSocket();
    makeCheck(portOf(mute.get()));
    expectPatience();
}

TEST_F(ProxyCheckTest, givesAConnectThatNobodyAnswersTwoSeconds)
{
    const MutePort mute;
    makeCheck(mute.number());
    expectPatience();
}

TEST_F(ProxyCheckTest, checksTheSamePortAgain)
{
    startProxy(QByteArray::fromHex("0500"));
    for (int round = 1; round <= 3; ++round) {
        fail(5);
        EXPECT_TRUE(waitUntil([&] {
            poll(); // the check before may not have been told of yet
            return m_proxy->connections() == round;
        }));
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    }
    EXPECT_THAT(deaths(), IsEmpty());
}

TEST_F(ProxyCheckTest, checksBothInboundsAtATime)
{
    const Socket main = listeningSocket();
    const Socket direct = listeningSocket();
    makeCheck(portOf(main.get()), portOf(direct.get()));
    fail(5);
    fail(5, portOf(direct.get()));
    poll();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    m_now += ProxyCheck::timeout;
    poll();
    EXPECT_THAT(deaths(), ElementsAre(m_proxyPort)) << "of one proxy";
}

TEST_F(ProxyCheckTest, makesNoSocketWhenNothingIsDue)
{
    makeCheck(closedPort());
    std::atomic<int> sockets = 0;
    const ImportRedirection<IMPORT(WSASocketW)> counted([&](auto... arguments) {
        ++sockets;
        return counted.real(arguments...);
    });
    fail(4);
    for (int i = 0; i < 1000; ++i, m_now += 10ms)
        poll();
    EXPECT_EQ(sockets, 0);
    fail(1);
    poll();
    EXPECT_EQ(sockets, 1);
    expectDeath();
}

TEST_F(ProxyCheckTest, withoutASocketTellsNothing)
{
    makeCheck(closedPort());
    {
        const ImportRedirection<IMPORT(WSASocketW)> none([](auto...) {
            WSASetLastError(WSAEMFILE);
            return INVALID_SOCKET;
        });
        fail(5);
        poll();
        poll();
    }
    EXPECT_THAT(deaths(), IsEmpty());
    fail(1);
    poll();
    expectDeath();
}

TEST_F(ProxyCheckTest, ofAHostThatIsNoAddressTellsNothing)
{
    makeCheck(closedPort(), 1, L"proxy.example");
    fail(5);
    poll();
    EXPECT_THAT(deaths(), IsEmpty());
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(ProxyCheckTest, thatTheStopEndsIsNotToldOf)
{
    const Socket mute = listeningSocket();
    makeCheck(portOf(mute.get()));
    fail(5);
    poll();
    EXPECT_EQ(m_port.inFlight(), 1);
    m_check->stop();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    EXPECT_THAT(deaths(), IsEmpty());
}

TEST_F(ProxyCheckTest, afterAResetFollowsEachOtherEverySecond)
{
    makeCheck(closedPort());
    m_health->noteReset();
    m_health->noteReady(m_now);
    std::atomic<int> sockets = 0;
    const ImportRedirection<IMPORT(WSASocketW)> counted([&](auto... arguments) {
        ++sockets;
        return counted.real(arguments...);
    });
    for (int check = 1; check <= 5; ++check, m_now += 1s) {
        EXPECT_THAT(deaths(), IsEmpty());
        poll();
        EXPECT_EQ(sockets, check);
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    }
    expectDeath();
}

} // namespace
} // namespace ruvo::test
