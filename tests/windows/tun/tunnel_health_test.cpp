// The death of the proxy: who notices it, how often it is told, and that a stop does not wait for it.

#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/nat/nat_test.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TunnelHealth : public TunnelTest
{
protected:
    void startWatched(const TunnelSettings &settings)
    {
        m_tunnel = std::make_unique<Tunnel>(settings);
        m_tunnel->setHealthCheckFailedCallback([this] { ++m_deaths; });
        ASSERT_EQ(startError(), "");
        ASSERT_EQ(linuxOutput("ip route add 203.0.113.0/24 dev test"), "");
        m_log.clear();
    }
    /// A connection of this host's, which ends one way or the other.
    static void connectFromHere(std::uint16_t port = 80)
    {
        linuxOutput("timeout 10 bash -c 'exec 3<>/dev/tcp/203.0.113.9/" + std::to_string(port)
                    + " && read -r -t 5 -u 3' 2>&1");
    }
    /// The first packet of a connection that comes from another host.
    void connectFromElsewhere(std::uint16_t port = 80)
    {
        const PacketBytes packet = buildTcpPacket(guest, ++m_sourcePort, destination, port, 1, 0, tcpSyn, nullptr, 0);
        m_tunnel->dispatchPacket(packet.data(), packet.size());
    }
    /// A datagram of a new flow.
    void sendDatagram(std::uint16_t port = 443)
    {
        const std::uint8_t payload[] = {1, 2, 3};
        const PacketBytes packet =
            buildUdpPacket(tunnelIp, ++m_sourcePort, destination, port, payload, sizeof(payload));
        m_tunnel->dispatchPacket(packet.data(), packet.size());
    }
    QStringList deathLines() const { return m_log.linesWith("does not answer any more on port"); }
    static QString deathLine(std::uint16_t port)
    {
        return "WARNING [RUVO-TUN] The proxy does not answer any more on port " + QString::number(port);
    }
    void expectDeath(std::uint16_t port)
    {
        EXPECT_TRUE(waitUntil([this] { return m_deaths > 0; })) << m_log.lines().join('\n').toStdString();
        EXPECT_EQ(deathLines(), QStringList{deathLine(port)});
    }

    static constexpr std::uint32_t guest = 0x0A090909;       // 10.9.9.9
    static constexpr std::uint32_t destination = 0xCB007109; // 203.0.113.9

    const std::uint16_t m_closed = closedPort();
    std::atomic<int> m_deaths = 0;

private:
    std::uint16_t m_sourcePort = 40000;
};

TEST_F(TunnelHealth, isToldOfOnceAfterFiveRefusedConnections)
{
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = m_closed}));
    for (int i = 0; i < 4; ++i)
        connectFromHere();
    EXPECT_TRUE(waitUntil([this] { return m_log.linesWith("Failed to connect to SOCKS5 proxy").size() == 4; }));
    EXPECT_EQ(m_deaths, 0);
    connectFromHere();
    expectDeath(m_closed);
    for (int i = 0; i < 10; ++i)
        connectFromHere();
    // All fifteen have failed by now; of the lines that say so no more than ten are written.
    EXPECT_TRUE(waitUntil([this] { return m_log.linesWith("Failed to connect to SOCKS5 proxy").size() == 10; }));
    EXPECT_EQ(m_deaths, 1);
    EXPECT_EQ(deathLines().size(), 1);
}

TEST_F(TunnelHealth, isSeenByConnectionsThatTheEngineTerminates)
{
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = m_closed}));
    for (int i = 0; i < 5; ++i)
        connectFromElsewhere();
    expectDeath(m_closed);
}

TEST_F(TunnelHealth, isSeenByDatagrams)
{
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = m_closed}));
    for (int i = 0; i < 5; ++i)
        sendDatagram();
    expectDeath(m_closed);
}

TEST_F(TunnelHealth, isThatOfTheInboundThatFails)
{
    const Socket alive = listeningSocket();
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = portOf(alive.get()), .directPort = m_closed}));
    for (int i = 0; i < 5; ++i)
        connectFromElsewhere(53);
    expectDeath(m_closed);
}

TEST_F(TunnelHealth, ofBothInboundsIsToldOfOnce)
{
    ParallelProxy main([](ProxyConnection &client, int) {
        client.receive(3);
        client.send(QByteArray::fromHex("05ff"));
    });
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = main.port(), .directPort = m_closed}));
    for (int i = 0; i < 5; ++i)
        connectFromElsewhere(53);
    expectDeath(m_closed);
    // The second check comes when the first one has found the main inbound dead.
    int connections = 0;
    EXPECT_TRUE(waitUntil([&] {
        connectFromHere();
        return main.connections() >= ++connections + 2;
    }));
    EXPECT_EQ(m_deaths, 1);
    EXPECT_EQ(deathLines().size(), 1);
    m_tunnel->stop();
}

// Dead when it says so: it still listens, and lets nobody in.
TEST_F(TunnelHealth, isNewsAgainOnceTheProxyHasLived)
{
    std::atomic<bool> isAlive = false;
    ParallelProxy proxy([&](ProxyConnection &client, int) {
        client.receive(3);
        if (!isAlive)
            return client.send(QByteArray::fromHex("05ff"));
        client.send(QByteArray::fromHex("0500"));
        client.receive(10);
        client.send(QByteArray::fromHex("05000001000000000000") + "hello\n");
    });
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = proxy.port()}));
    for (int life = 1; life <= 3; ++life) {
        isAlive = false;
        for (int i = 0; i < 5; ++i)
            connectFromHere();
        EXPECT_TRUE(waitUntil([&] { return m_deaths == life; }));
        isAlive = true;
        connectFromHere();
    }
    EXPECT_EQ(deathLines().size(), 3);
    m_tunnel->stop();
}

// A full log disk or a full adapter can stall them all, and connections fail by that.
TEST_F(TunnelHealth, isNotThatOfAProxyThatAnswersWhileAllWorkersAreHeldUp)
{
    // The threads that open associations go on: five of them fail, then a check succeeds, twice.
    std::atomic<int> greetings = 0;
    ParallelProxy proxy([&](ProxyConnection &client, int) {
        if (client.receive(3).size() == 3)
            client.send(QByteArray::fromHex(greetings++ % 6 == 5 ? "0500" : "05ff"));
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = proxy.port()}));
    Signal mayGoOn;
    std::atomic<unsigned> held = 0;
    const ImportRedirection<IMPORT(GetQueuedCompletionStatus)> holding([&](auto... arguments) {
        if (!mayGoOn.isSet()) {
            ++held;
            mayGoOn.wait(60s);
        }
        return holding.real(arguments...);
    });
    EXPECT_TRUE(waitUntil([&] { return held == std::thread::hardware_concurrency(); }));
    for (int check = 1; check <= 2; ++check) {
        for (int i = 0; i < 5; ++i)
            sendDatagram();
        EXPECT_TRUE(waitUntil([&] { return greetings == 6 * check; })) << greetings;
    }
    EXPECT_EQ(m_deaths, 0);
    mayGoOn.set();
    m_tunnel->stop();
    EXPECT_EQ(deathLines(), QStringList());
}

TEST_F(TunnelHealth, isNotLookedForWithoutTraffic)
{
    std::atomic<int> rounds = 0;
    const ImportRedirection<IMPORT(WaitForMultipleObjects)> counted([&](auto... arguments) {
        ++rounds;
        return counted.real(arguments...);
    });
    std::atomic<int> streams = 0;
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = m_closed}));
    const ImportRedirection<IMPORT(WSASocketW)> sockets([&](int family, int type, auto... rest) {
        streams += type == SOCK_STREAM;
        return sockets.real(family, type, rest...);
    });
    const int begin = rounds;
    EXPECT_TRUE(waitUntil([&] { return rounds > begin + 100; })) << "of the thread that would check it";
    EXPECT_EQ(streams, 0);
    EXPECT_EQ(m_deaths, 0);
}

TEST_F(TunnelHealth, doesNotHoldTheStopUpWhileItIsChecked)
{
    ParallelProxy proxy([&](ProxyConnection &client, int number) {
        client.receive(3);
        if (number < 5)
            return client.send(QByteArray::fromHex("05ff"));
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startWatched({.proxyPort = proxy.port()}));
    for (int i = 0; i < 5; ++i)
        connectFromHere();
    EXPECT_TRUE(waitUntil([&] { return proxy.connections() == 6; }));
    const auto begin = steadyNow();
    m_tunnel->stop();
    EXPECT_LT(steadyNow() - begin, ProxyCheck::timeout) << "the check did not end by itself";
    EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
    EXPECT_EQ(m_deaths, 0);
}

} // namespace
} // namespace ruvo::test
