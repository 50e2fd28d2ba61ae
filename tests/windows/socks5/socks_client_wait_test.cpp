// How long the client waits for a proxy that says nothing, and what ends the wait.

#include "windows/socks5/socks_client_test.h"

#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <chrono>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A proxy that is mute from step `steps` on: 0 does not even answer the greeting.
ScriptedProxy::Script muteAfter(int steps, Signal *silent = nullptr)
{
    return [steps, silent](ProxyConnection &client) {
        client.receive(3);
        if (steps > 0) {
            client.send(QByteArray::fromHex("0500"));
            client.receive(10);
        }
        if (silent)
            silent->set();
        client.waitForEnd();
    };
}

/// Once the proxy is silent, ends every wait of this thread that finds nothing as if its whole time had passed, and
/// keeps the times that were asked for.
class WaitsWithoutTime
{
public:
    explicit WaitsWithoutTime(const Signal &silent) : m_silent(silent) {}

    std::vector<DWORD> timeouts;

private:
    DWORD wait(DWORD count, const HANDLE *handles, BOOL all, DWORD timeout)
    {
        bool isLast = false;
        for (DWORD waited = 0; waited < timeout && !isLast; waited += slice) {
            isLast = m_silent.isSet();
            if (const DWORD result = m_wait.real(count, handles, all, slice); result != WAIT_TIMEOUT)
                return result;
        }
        timeouts.push_back(timeout);
        return WAIT_TIMEOUT;
    }

    static constexpr DWORD slice = 50; // ms
    const Signal &m_silent;
    const DWORD m_thread = GetCurrentThreadId();
    const ImportRedirection<IMPORT(WaitForMultipleObjects)> m_wait{
        [this](DWORD count, const HANDLE *handles, BOOL all, DWORD timeout) -> DWORD {
            return GetCurrentThreadId() == m_thread ? wait(count, handles, all, timeout)
                                                    : m_wait.real(count, handles, all, timeout);
        }};
};

class SocksClientWait : public SocksClientTest
{};

TEST_F(SocksClientWait, allowsTenSecondsForAnAnswerToTheGreeting)
{
    Signal silent;
    SocksClient &client = start(muteAfter(0, &silent));
    const WaitsWithoutTime waits(silent);
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to receive SOCKS5 response"});
    ASSERT_EQ(waits.timeouts.size(), 1u);
    EXPECT_LE(waits.timeouts[0], 10000u);
    EXPECT_GT(waits.timeouts[0], 5000u);
}

TEST_F(SocksClientWait, allowsTenSecondsForAReply)
{
    Signal silent;
    SocksClient &client = start(muteAfter(1, &silent));
    const WaitsWithoutTime waits(silent);
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to receive connection response"});
    ASSERT_EQ(waits.timeouts.size(), 1u);
    EXPECT_LE(waits.timeouts[0], 10000u);
    EXPECT_GT(waits.timeouts[0], 5000u);
}

TEST_F(SocksClientWait, allowsTenSecondsForAConnect)
{
    // A connect that is never answered: its event is never set.
    const ImportRedirection<IMPORT(connect)> never([](SOCKET, const sockaddr *, int) -> int {
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    });
    SocksClient client(L"127.0.0.1", closedPort());
    Signal silent;
    silent.set();
    const WaitsWithoutTime waits(silent);
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to connect to proxy: 10060"});
    EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
    ASSERT_EQ(waits.timeouts.size(), 1u);
    EXPECT_LE(waits.timeouts[0], 10000u);
    EXPECT_GT(waits.timeouts[0], 5000u);
}

TEST_F(SocksClientWait, reallyFailsAfterTenSecondsOfSilence)
{
    SocksClient &client = start([](ProxyConnection &proxy) {
        proxy.receive(3);
        std::this_thread::sleep_for(5s);
        proxy.send(QByteArray::fromHex("0500")); // neither an answer nor half of one gives more time
        proxy.receive(10);
        proxy.send(QByteArray::fromHex("0500"));
        proxy.waitForEnd();
    });
    const auto begin = Clock::now();
    EXPECT_FALSE(client.connectTo(address, port));
    const auto taken = Clock::now() - begin;
    EXPECT_GE(taken, 9900ms);
    EXPECT_LT(taken, 14s);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to receive connection response"});
}

TEST_F(SocksClientWait, endsAtOnceWhenTheStopEventIsSet)
{
    for (const int step : {0, 1}) {
        const KernelHandle stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        Signal silent;
        SocksClient &client = start(muteAfter(step, &silent), stop.get());
        std::thread stopper([&] {
            silent.wait();
            SetEvent(stop.get());
        });
        const auto begin = Clock::now();
        EXPECT_FALSE(client.connectTo(address, port));
        EXPECT_LT(Clock::now() - begin, 5s) << "step " << step;
        stopper.join();
    }
    EXPECT_EQ(m_log.lines(), (QStringList{"WARNING Failed to receive SOCKS5 response",
                                          "WARNING Failed to receive connection response"}));
}

TEST_F(SocksClientWait, endsAConnectToNobodyWhenTheStopEventIsSet)
{
    const ImportRedirection<IMPORT(connect)> never([](SOCKET, const sockaddr *, int) -> int {
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    });
    const KernelHandle stop(CreateEventW(nullptr, TRUE, TRUE, nullptr));
    SocksClient client(L"127.0.0.1", 1, stop.get());
    const auto begin = Clock::now();
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_LT(Clock::now() - begin, 5s);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to connect to proxy: 10004"});
}

TEST_F(SocksClientWait, sendsOnWhenARoomInTheSocketAppears)
{
    // The first send of the greeting finds no room, the next takes one byte.
    int sends = 0;
    const DWORD thread = GetCurrentThreadId();
    SocksClient &client = startAnswering(accepted, connected);
    const ImportRedirection<IMPORT(send)> narrow([&](SOCKET socket, const char *bytes, int size, int flags) -> int {
        if (GetCurrentThreadId() != thread)
            return narrow.real(socket, bytes, size, flags);
        if (++sends == 1) {
            WSASetLastError(WSAEWOULDBLOCK);
            return SOCKET_ERROR;
        }
        return narrow.real(socket, bytes, sends == 2 ? 1 : size, flags);
    });
    EXPECT_TRUE(client.connectTo(address, port));
    EXPECT_EQ(sends, 4); // none, one byte, the rest, the request
}

} // namespace
} // namespace ruvo::test
