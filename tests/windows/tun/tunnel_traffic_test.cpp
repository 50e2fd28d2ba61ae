// Stopping while connections are under way: nothing that a peer does or leaves undone holds it up.

#include "windows/tun/tunnel_test.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/socks5/scripted_proxy.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <list>
#include <optional>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TunnelTraffic : public TunnelTest
{
protected:
    void expectAStopInTime()
    {
        const auto begin = Clock::now();
        m_tunnel->stop();
        EXPECT_LT(Clock::now() - begin, 5s);
        EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
        EXPECT_EQ(m_log.linesWith("still in flight"), QStringList());
        EXPECT_EQ(tunLinks(), "");
    }
};

TEST_F(TunnelTraffic, ofAProxyThatAcceptsAndNeverAnswersDoesNotHoldTheStopUp)
{
    const Socket mute = listeningSocket();
    ASSERT_NO_FATAL_FAILURE(startTowards(portOf(mute.get())));
    std::list<LinuxCommand> applications;
    for (int i = 0; i < 5; ++i)
        applications.emplace_back(application);
    // The relays' connects have arrived and wait for the answer to their greeting.
    const std::string port = std::to_string(portOf(mute.get()));
    EXPECT_TRUE(waitUntil(
        [&] { return std::stoi(linuxOutput("ss -Htn state established 'dport = :" + port + "' | wc -l")) >= 5; }));
    expectAStopInTime();
    for (LinuxCommand &one : applications)
        EXPECT_TRUE(one.wait());
}

TEST_F(TunnelTraffic, throughOpenRelaysEndsWithTheStop)
{
    std::atomic<int> relayed = 0;
    const ScriptedProxy proxy([&](ProxyConnection &client) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        client.receive(10);
        client.send(QByteArray::fromHex("05000001000000000000"));
        if (client.receive(6) == "hello\n")
            ++relayed;
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    LinuxCommand command(application);
    EXPECT_TRUE(waitUntil([&] { return relayed == 1; })) << m_log.lines().join('\n').toStdString();
    EXPECT_GT(m_tunnel->operationsInFlight(), 0);
    expectAStopInTime();
    EXPECT_TRUE(command.wait());
}

TEST_F(TunnelTraffic, goesBothWaysThroughTheProxy)
{
    QByteArray request;
    const ScriptedProxy proxy([&](ProxyConnection &client) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        request = client.receive(10);
        client.send(QByteArray::fromHex("05000001000000000000"));
        const QByteArray said = client.receive(6);
        client.send("you said " + said);
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    EXPECT_EQ(linuxOutput(application), "you said hello\n");
    EXPECT_EQ(request, QByteArray::fromHex("05010001cb0071090050")) << "203.0.113.9, port 80";
}

// What no rule sends direct is not taken for it because its inbound is the direct one's.
TEST_F(TunnelTraffic, goesThroughTheProxyThoughBothInboundsAreOne)
{
    QByteArray request;
    const ScriptedProxy proxy([&](ProxyConnection &client) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        request = client.receive(10);
        client.send(QByteArray::fromHex("05000001000000000000"));
        client.send("you said " + client.receive(6));
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startWith({.proxyPort = proxy.port(), .directPort = proxy.port()}));
    EXPECT_EQ(linuxOutput(application), "you said hello\n") << m_log.lines().join('\n').toStdString();
    EXPECT_EQ(request, QByteArray::fromHex("05010001cb0071090050")) << "203.0.113.9, port 80";
}

// Its connection is bound to no interface here, so that its way leads back into the tunnel.
TEST_F(TunnelTraffic, thatARuleSendsDirectLeavesPastTheProxyThoughBothInboundsAreOne)
{
    const Socket proxy = listeningSocket();
    const std::uint16_t port = portOf(proxy.get());
    ASSERT_NO_FATAL_FAILURE(startWith({.proxyPort = port, .directPort = port, .bypassIps = {0xCB007109}}));
    LinuxCommand command(application);
    EXPECT_TRUE(waitUntil([this] { return m_log.contains("Own connection to 203.0.113.9:80 came back"); }))
        << m_log.lines().join('\n').toStdString();
    m_tunnel->stop();
    EXPECT_TRUE(command.wait());
}

TEST_F(TunnelTraffic, toALearntAddressAsksTheProxyForItsName)
{
    const QByteArray name = "www.example.org";
    const QByteArray wanted = QByteArray::fromHex("050100030f") + name + QByteArray::fromHex("0050");
    QByteArray request;
    const ScriptedProxy proxy([&](ProxyConnection &client) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        request = client.receive(wanted.size());
        client.send(QByteArray::fromHex("05000001000000000000"));
        client.send("you said " + client.receive(6));
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    m_tunnel->learnedNames().learn(0xCB007109, name.toStdString(), 300);
    m_tunnel->learnedNames().learn(0xCB007108, "www.example.net", 300);
    EXPECT_EQ(linuxOutput(application), "you said hello\n");
    EXPECT_EQ(request, wanted) << request.toHex().toStdString();
}

TEST_F(TunnelTraffic, ofThisVeryProcessIsNotRelayed)
{
    const Socket proxy = listeningSocket();
    ASSERT_NO_FATAL_FAILURE(startTowards(portOf(proxy.get())));
    const Socket own(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0));
    sockaddr_in address = loopbackAddress(80);
    address.sin_addr.s_addr = htonl(0xCB007109);
    ASSERT_EQ(connect(own.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_TRUE(waitUntil([this] { return m_log.contains("came back through the tunnel, closing it"); }))
        << m_log.lines().join('\n').toStdString();
    char byte = 0;
    EXPECT_LE(recv(own.get(), &byte, 1, 0), 0);
}

} // namespace
} // namespace ruvo::test
