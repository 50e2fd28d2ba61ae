#include "windows/nat/relay_connector_fixture.h"

#include "windows/support/import_redirection.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

/// A proxy that lets everybody in and then says nothing: nobody takes the connections out of its queue.
class MuteProxyTest : public RelayConnectorTest
{
protected:
    /// RUVOD_MUTE_CONNECTIONS sets another number: 10,000 need as many sockets three times over.
    static int connectionCount()
    {
        bool isSet = false;
        const int count = qEnvironmentVariableIntValue("RUVOD_MUTE_CONNECTIONS", &isSet);
        return isSet ? count : 1000;
    }
    void SetUp() override
    {
        RelayConnectorTest::SetUp();
        routeThrough(portOf(m_mute.get()));
        m_begin = steadyNow();
        m_clients.reserve(static_cast<std::size_t>(connectionCount()));
        for (int i = 0; i < connectionCount(); ++i)
            m_clients.push_back(relay());
    }

    const Socket m_mute = listeningSocket();
    SteadyTime m_begin;
    std::vector<Client> m_clients;
};

TEST_F(MuteProxyTest, holdsUpNobodyNotEvenTheStop)
{
    const auto count = static_cast<std::size_t>(connectionCount());
    EXPECT_EQ(m_connector->waiting(), count);
    startProxy([](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        proxied.send(connected + "live");
        proxied.waitForEnd();
    });
    const auto asked = std::chrono::steady_clock::now();
    const Client live = relay();
    EXPECT_EQ(receiveBytes(live.socket.get(), 4), "live");
    const auto answered = std::chrono::steady_clock::now();
    EXPECT_EQ(m_connector->waiting(), count);

    m_connector->stop();
    const auto stopped = std::chrono::steady_clock::now();
    stopWorkers();
    EXPECT_TRUE(m_port.drain(5s));
    const auto drained = std::chrono::steady_clock::now();
    EXPECT_LT(answered - asked, 1s);
    EXPECT_LT(drained - answered, count <= 1000 ? 1s : 5s);
    const auto text = [](auto time) { return std::chrono::duration_cast<std::chrono::milliseconds>(time).count(); };
    std::printf("%zu mute connections: a live one in %lld ms, stop in %lld ms, drained in %lld ms more\n", count,
                text(answered - asked), text(stopped - answered), text(drained - stopped));
    for (const Client &client : m_clients) {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_FALSE(client.session->active);
    }
    expectRefused(relay());
}

TEST_F(MuteProxyTest, isGivenUpAfterTenSeconds)
{
    m_connector->housekeeping(m_begin + RelayConnector::attemptTimeout - 1ms);
    EXPECT_EQ(m_connector->waiting(), m_clients.size());
    expireAll();
    for (const Client &client : m_clients) {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_FALSE(client.session->active);
    }
    const auto count = static_cast<qsizetype>(m_clients.size());
    EXPECT_EQ(m_log.linesWith("[TCP-NAT] Failed to connect to SOCKS5 proxy").size(), cappedLines(count));
    // Those that a worker had not looked at yet were still connecting.
    const qsizetype mute = m_log.linesWith("WARNING Failed to receive SOCKS5 response").size();
    const qsizetype connecting = m_log.linesWith("WARNING Failed to connect to proxy: 10060").size();
    EXPECT_EQ(m_log.lines().size(), cappedLines(count) + mute + connecting) << "nothing else is said";
    EXPECT_GE(std::max(mute, connecting), cappedLines(count / 2));
    EXPECT_LE(mute + connecting, 2 * cappedLines(count));
    EXPECT_EQ(m_witness.signs().size(), m_clients.size()) << "each is one failure of the proxy's";
}

/// The same for clients whose name is known: each would take a second attempt, by address.
class MuteProxyByNameTest : public MuteProxyTest
{
protected:
    void SetUp() override
    {
        m_name = "example.com";
        MuteProxyTest::SetUp();
    }
};

TEST_F(MuteProxyByNameTest, connectsNothingMoreOnceItStops)
{
    constexpr int openedBefore = 10;
    std::atomic<int> opened = 0;
    std::atomic<DWORD> expiring = 0;
    const ImportRedirection<IMPORT(WSASocketW)> watched(
        [&, next = ImportRedirection<IMPORT(WSASocketW)>::current()](auto... arguments) {
            // The last one before the stop is on its way until the stop has begun.
            if (GetCurrentThreadId() == expiring && ++opened == openedBefore) {
                EXPECT_TRUE(waitUntil([this] { return m_connector->waiting() == 0; }));
            }
            return next(arguments...);
        });
    std::thread housekeeping([&] {
        expiring = GetCurrentThreadId();
        m_connector->housekeeping(steadyNow() + RelayConnector::attemptTimeout);
    });
    EXPECT_TRUE(waitUntil([&] { return opened == openedBefore; }));
    m_connector->stopConnecting();
    housekeeping.join();
    EXPECT_EQ(opened, openedBefore);
    for (const Client &client : m_clients) {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_FALSE(client.session->active);
    }
    expectRefused(relay());
}

} // namespace
} // namespace ruvo::test
