#include "tun/proxy_check.h"

#include "support/log_capture.h"
#include "support/wait_until.h"
#include "windows/nat/nat_test.h"
#include "windows/socks5/mute_port.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <gmock/gmock.h>

#include <process.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Checks of a proxy's two inbounds. There is neither a completion port nor a worker.
class ProxyCheckTest : public WinsockTest
{
protected:
    void TearDown() override
    {
        SetEvent(m_stopEvent.get());
        m_check.reset();
    }
    void makeCheck(std::uint16_t port, std::uint16_t directPort = 1, const std::wstring &host = L"127.0.0.1")
    {
        m_proxyPort = port;
        m_health = std::make_unique<ProxyHealth>(port, directPort, [this](std::uint16_t dead) {
            const std::lock_guard lock(m_mutex);
            m_deaths.push_back(dead);
        });
        m_check = std::make_unique<ProxyCheck>(host, m_stopEvent.get(), *m_health);
    }
    void fail(int count) { fail(count, m_proxyPort); }
    void fail(int count, std::uint16_t port)
    {
        for (int i = 0; i < count; ++i)
            m_health->note(port, {ProxySign::Failed, steadyNow()});
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
    void poll() { m_check->poll(steadyNow()); }
    std::vector<std::uint16_t> deaths()
    {
        const std::lock_guard lock(m_mutex);
        return m_deaths;
    }
    void expectDeath()
    {
        EXPECT_TRUE(waitUntil([this] { return !deaths().empty(); }));
        EXPECT_THAT(deaths(), ElementsAre(m_proxyPort));
    }
    /// It is due to be checked again after five failures, once the outcome of the last check is known.
    void expectAlive()
    {
        EXPECT_TRUE(waitUntil([this] {
            fail(5);
            return m_health->takeDueCheck(steadyNow()) == m_proxyPort;
        }));
        EXPECT_THAT(deaths(), IsEmpty());
    }
    /// The proxy is there but nobody answers: it is dead after two seconds, and not before.
    void expectPatience()
    {
        fail(5);
        const SteadyTime begin = steadyNow();
        poll();
        EXPECT_LT(steadyNow() - begin, ProxyCheck::timeout) << "poll waits for nothing";
        expectDeath();
        EXPECT_GE(steadyNow() - begin, ProxyCheck::timeout);
    }
    /// A check is cut off in its middle, and tells nothing.
    void expectAStopInTime()
    {
        const SteadyTime begin = steadyNow();
        SetEvent(m_stopEvent.get());
        m_check->stop();
        EXPECT_LT(steadyNow() - begin, ProxyCheck::timeout / 2);
        EXPECT_THAT(deaths(), IsEmpty());
    }

    LogCapture m_log;
    const KernelHandle m_stopEvent{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::uint16_t m_proxyPort = 0;
    QByteArray m_greeting;
    QByteArray m_rest;
    Signal m_isOver;
    std::unique_ptr<ParallelProxy> m_proxy;
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
    ASSERT_TRUE(m_isOver.wait());
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

TEST_F(ProxyCheckTest, takesARefusalOfThisMachineAtOnce)
{
    makeCheck(closedPort());
    std::atomic<int> asked = 0;
    const ImportRedirection<IMPORT(WSAIoctl)> watched([&](SOCKET socket, DWORD code, auto... rest) {
        asked += code == SIO_TCP_INITIAL_RTO;
        return watched.real(socket, code, rest...);
    });
    fail(5);
    poll();
    expectDeath();
    EXPECT_EQ(asked, 1);
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
        EXPECT_TRUE(waitUntil([&] {
            fail(1); // the check before may not have been told of yet
            poll();
            return m_proxy->connections() == round;
        }));
    }
    EXPECT_THAT(deaths(), IsEmpty());
}

TEST_F(ProxyCheckTest, checksBothInboundsAtATime)
{
    const auto waitingProxy = [](Signal &own, Signal &other) {
        return [&](ProxyConnection &client, int) {
            client.receive(3);
            own.set();
            // The other one is being checked at the same time.
            if (other.wait())
                client.send(QByteArray::fromHex("05ff"));
        };
    };
    Signal isMain;
    Signal isDirect;
    const ParallelProxy main(waitingProxy(isMain, isDirect));
    const ParallelProxy direct(waitingProxy(isDirect, isMain));
    makeCheck(main.port(), direct.port());
    fail(5);
    fail(5, direct.port());
    const SteadyTime begin = steadyNow();
    poll();
    EXPECT_TRUE(waitUntil([this] { return deaths().size() == 1; })) << "of one proxy";
    EXPECT_LT(steadyNow() - begin, ProxyCheck::timeout);
    SetEvent(m_stopEvent.get());
    m_check->stop();
    EXPECT_EQ(deaths().size(), 1U);
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
    for (int i = 0; i < 1000; ++i)
        poll();
    EXPECT_EQ(sockets, 0);
    fail(1);
    poll();
    expectDeath();
    EXPECT_EQ(sockets, 1);
}

TEST_F(ProxyCheckTest, withoutASocketTellsNothing)
{
    makeCheck(closedPort());
    Signal isAsked;
    {
        const ImportRedirection<IMPORT(WSASocketW)> none([&](auto...) {
            isAsked.set();
            WSASetLastError(WSAEMFILE);
            return INVALID_SOCKET;
        });
        fail(5);
        poll();
        EXPECT_TRUE(isAsked.wait());
    }
    EXPECT_TRUE(waitUntil([this] {
        EXPECT_THAT(deaths(), IsEmpty());
        fail(1);
        return m_health->takeDueCheck(steadyNow()) == m_proxyPort;
    }));
    m_health->noteChecked(m_proxyPort, std::nullopt);
    fail(1);
    poll();
    expectDeath();
}

TEST_F(ProxyCheckTest, withoutAThreadTellsNothing)
{
    makeCheck(closedPort());
    {
        const ImportRedirection<IMPORT(_beginthreadex)> none([](auto...) -> uintptr_t {
            errno = EAGAIN;
            return 0;
        });
        fail(5);
        poll();
        poll();
    }
    EXPECT_THAT(deaths(), IsEmpty());
    EXPECT_EQ(m_health->takeDueCheck(steadyNow()), std::nullopt);
    fail(1);
    poll();
    expectDeath();
}

TEST_F(ProxyCheckTest, withoutMemoryForAThreadTellsNothing)
{
    makeCheck(closedPort());
    {
        const ImportRedirection<IMPORT(_beginthreadex)> none([](auto...) -> uintptr_t { throw std::bad_alloc(); });
        fail(5);
        EXPECT_NO_THROW(poll());
    }
    EXPECT_THAT(deaths(), IsEmpty());
    fail(1);
    poll();
    expectDeath();
}

TEST_F(ProxyCheckTest, ofAHostThatIsNoAddressTellsNothing)
{
    makeCheck(closedPort(), 1, L"proxy.example");
    const ImportRedirection<IMPORT(WSASocketW)> none([](auto...) {
        ADD_FAILURE() << "there is nobody to connect to";
        return INVALID_SOCKET;
    });
    fail(5);
    poll();
    SetEvent(m_stopEvent.get());
    m_check->stop();
    EXPECT_THAT(deaths(), IsEmpty());
}

TEST_F(ProxyCheckTest, thatTheStopEndsBeforeItsAnswerIsNotToldOf)
{
    Signal isGreeted;
    const ParallelProxy mute([&](ProxyConnection &client, int) {
        client.receive(3);
        isGreeted.set();
        client.waitForEnd();
    });
    makeCheck(mute.port());
    fail(5);
    poll();
    ASSERT_TRUE(isGreeted.wait());
    expectAStopInTime();
}

TEST_F(ProxyCheckTest, thatTheStopEndsBeforeItsConnectionIsNotToldOf)
{
    const MutePort mute;
    makeCheck(mute.number());
    Signal isWaiting;
    const ImportRedirection<IMPORT(WaitForMultipleObjects)> watched([&](auto... arguments) {
        isWaiting.set();
        return watched.real(arguments...);
    });
    fail(5);
    poll();
    ASSERT_TRUE(isWaiting.wait());
    expectAStopInTime();
}

TEST_F(ProxyCheckTest, afterTheStopIsNotMade)
{
    makeCheck(closedPort());
    expectAStopInTime();
    fail(5);
    poll();
    EXPECT_THAT(deaths(), IsEmpty());
}

TEST_F(ProxyCheckTest, afterAResetFollowsEachOtherEverySecond)
{
    makeCheck(closedPort());
    std::atomic<int> sockets = 0;
    const ImportRedirection<IMPORT(WSASocketW)> counted([&](auto... arguments) {
        ++sockets;
        return counted.real(arguments...);
    });
    SteadyTime now = steadyNow();
    m_health->noteReset(now);
    m_health->noteReady(now);
    for (int check = 1; check <= 5; ++check, now += 1s) {
        EXPECT_THAT(deaths(), IsEmpty());
        // The one before may not have been told of yet.
        EXPECT_TRUE(waitUntil([&] {
            m_check->poll(now);
            return sockets == check;
        }));
    }
    expectDeath();
}

} // namespace
} // namespace ruvo::test
