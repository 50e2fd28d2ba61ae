// What ends connections that nobody ends: their number, their age, a reset of all.

#include "windows/engine/tcp_engine_fixture.h"

#include <future>
#include <thread>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpLimitsTest : public TcpEngineTest
{
protected:
    /// A proxy that takes connections and never says a word.
    void useMute() { usePort(portOf(m_mute.get())); }
    void expectAliveFor(std::chrono::seconds time)
    {
        pass(time - 1s);
        m_engine->housekeeping();
        EXPECT_EQ(m_engine->connections() + m_engine->closingConnections(), 1u);
        pass(1s);
        m_engine->housekeeping();
        expectGone();
    }

    const Socket m_mute = listeningSocket();
};

TEST_F(TcpLimitsTest, keepNoMoreConnectionsThanThat)
{
    useMute();
    for (std::size_t i = 0; i <= TcpEngine::maxConnections; ++i)
        application(static_cast<std::uint16_t>(10'000 + i)).send(tcpSyn);
    EXPECT_EQ(m_engine->connections(), TcpEngine::maxConnections);
    EXPECT_EQ(records(), long{TcpEngine::maxConnections});
    application(10'000).send(tcpRst);
    EXPECT_EQ(m_engine->connections(), TcpEngine::maxConnections - 1);
    application(9'000).send(tcpSyn);
    EXPECT_EQ(m_engine->connections(), TcpEngine::maxConnections);
    m_engine->resetAll();
    expectGone();
}

TEST_F(TcpLimitsTest, endAHandshakeAfterAMinute)
{
    useMute();
    Application app = application(45001);
    app.send(tcpSyn);
    ASSERT_TRUE(waitUntil([&] {
        m_log.clear();
        m_engine->logConnectionStates();
        return m_log.contains("H_AUTH: 1");
    }));
    expectAliveFor(60s);
    EXPECT_EQ(m_log.linesWith("[FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 0 method: 0").size(), 1);
    EXPECT_EQ(m_adapter.unread(45001), 0u);
}

TEST_F(TcpLimitsTest, endAConnectionThatNobodyUsesAfterAMinute)
{
    Application app = application(45002);
    app.send(tcpSyn);
    ASSERT_TRUE(app.next()); // and never acknowledges it
    const Socket upstream = m_proxy->take().socket;
    expectAliveFor(60s);
    EXPECT_EQ(readToEnd(upstream.get()), Ending::Reset);
}

TEST_F(TcpLimitsTest, endEveryIpv6ConnectionAfterAMinute)
{
    sendIpv6(45003, tcpSyn, 1000);
    const Socket upstream = m_proxy->take().socket;
    ASSERT_TRUE(waitUntil([&] { return m_engine->establishedConnections() == 1; }));
    sendIpv6(45003, tcpSyn, 1000);
    expectAliveFor(60s);
}

TEST_F(TcpLimitsTest, leaveAConnectionInUseAlone)
{
    auto [app, upstream] = connectedApplication(45004);
    pass(24h);
    m_engine->housekeeping();
    app.send(tcpPsh | tcpAck, "still there");
    EXPECT_EQ(receiveBytes(upstream.get(), 11), "still there");
    // Silent for a day, it is not overdue as soon as it closes.
    app.send(tcpFin | tcpAck);
    m_engine->housekeeping();
    EXPECT_EQ(m_engine->closingConnections(), 1u);
}

TEST_F(TcpLimitsTest, doNotTakeAStrayPacketForUse)
{
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        Application app = application(45005);
        app.sendAt(500, tcpAck); // of an older connection of this port
        client.send(accepted);
        client.receive(10);
        client.send(connected);
        client.waitForEnd();
    });
    application(45005).send(tcpSyn);
    ASSERT_TRUE(waitUntil([&] { return m_engine->establishedConnections() == 1; }));
    expectAliveFor(60s);
}

TEST_F(TcpLimitsTest, endAClosingConnectionAfterAMinuteWithoutProgress)
{
    auto [app, upstream] = connectedApplication(45006);
    app.send(tcpFin | tcpAck);
    expectAliveFor(60s); // the upstream never closes
}

TEST_F(TcpLimitsTest, endWhatWaitsForTheApplicationAfterAMinuteWithoutProgress)
{
    auto [app, upstream] = connectedApplication(45007);
    m_adapter.setRoom(0);
    ASSERT_TRUE(sendAll(upstream.get(), pattern(20'000)));
    upstream.reset();
    ASSERT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1 && m_port.inFlight() == 0; }));
    pass(59s);
    m_adapter.setRoom(1);
    drain();
    ASSERT_TRUE(app.read());
    app.send(tcpAck); // a byte was acknowledged: a minute more
    expectAliveFor(60s);
    m_adapter.setRoom(std::nullopt);
    drain();
    EXPECT_EQ(m_adapter.unread(45007), 0u);
}

TEST_F(TcpLimitsTest, countACompletedSendAsProgress)
{
    auto [app, upstream] = connectedApplication(45008);
    const QByteArray bytes = pattern(1'900'000);
    ASSERT_TRUE(app.upload(bytes));
    app.send(tcpFin | tcpAck);
    pass(59s);
    QByteArray got;
    EXPECT_EQ(readToEnd(upstream.get(), &got), Ending::Proper);
    EXPECT_TRUE(got == bytes);
    expectAliveFor(60s);
}

class TcpResetAllTest : public TcpLimitsTest
{
protected:
    /// Something has come, or the stream has ended.
    static bool isReadable(SOCKET socket)
    {
        WSAPOLLFD one{.fd = socket, .events = POLLRDNORM, .revents = 0};
        return WSAPoll(&one, 1, 0) != 0;
    }

    /// Connections in every state; the upstreams of those that have one.
    std::vector<Socket> openOneOfEach()
    {
        std::vector<Socket> upstreams;
        const auto add = [&](std::uint16_t port) {
            auto [app, upstream] = connectedApplication(port);
            upstreams.push_back(std::move(upstream));
            return app;
        };
        add(46001); // idle
        Application uploading = add(46002);
        EXPECT_TRUE(uploading.upload(pattern(1'900'000)));
        add(46003); // held up by the adapter
        m_adapter.setRoom(0);
        const QByteArray tooMuch = pattern(400'000);
        EXPECT_TRUE(sendAll(upstreams.back().get(), tooMuch));
        m_adapter.setRoom(std::nullopt);
        Application closing = add(46004);
        m_adapter.setRoom(0);
        closing.send(tcpFin | tcpAck);
        useMute();
        application(46005).send(tcpSyn);
        usePort(m_proxy->port());
        application(46006).send(tcpSyn); // wherever it is
        return upstreams;
    }
};

TEST_F(TcpResetAllTest, endsConnectionsInEveryState)
{
    std::vector<Socket> upstreams = openOneOfEach();
    m_engine->resetAll();
    expectGone();
    for (std::size_t i = 0; i < 3; ++i) // the fourth was told its proper end before
        EXPECT_EQ(readToEnd(upstreams[i].get()), Ending::Reset) << i;
    m_adapter.setRoom(std::nullopt);
    const std::size_t unread = m_adapter.unread(46003);
    drain();
    EXPECT_EQ(m_adapter.unread(46003), unread);
    application(46001).send(tcpPsh | tcpAck, "dropped");
    EXPECT_EQ(m_engine->connections(), 0u);
    while (m_proxy->takeNow()) {}
    auto [app, upstream] = connectedApplication(46007);
    app.send(tcpPsh | tcpAck, "anew");
    EXPECT_EQ(receiveBytes(upstream.get(), 4), "anew");
}

TEST_F(TcpResetAllTest, closesTheSocketsOfWhatIsTakenOutOnlyWhenThatIsLetGo)
{
    const std::vector<Socket> upstreams = openOneOfEach();
    {
        const TcpEngine::Table taken = m_engine->takeAll();
        EXPECT_EQ(taken.size(), 6u);
        EXPECT_EQ(m_engine->connections() + m_engine->closingConnections(), 0u);
        EXPECT_EQ(m_engine->establishedConnections(), 0u);
        EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; })) << m_port.inFlight();
        EXPECT_EQ(records(), 6);
        EXPECT_FALSE(isReadable(upstreams[0].get()));
        m_adapter.setRoom(std::nullopt);
        const std::size_t unread = m_adapter.unread(46003);
        drain();
        EXPECT_EQ(m_adapter.unread(46003), unread);
    }
    expectGone();
    EXPECT_EQ(readToEnd(upstreams[0].get()), Ending::Reset);
}

TEST_F(TcpResetAllTest, forGoodOpensNoMore)
{
    const std::vector<Socket> upstreams = openOneOfEach();
    m_engine->close();
    expectGone();
    application(46008).send(tcpSyn);
    EXPECT_EQ(m_engine->connections(), 0u);
    m_engine->close();
}

TEST_F(TcpResetAllTest, mayComeAtAnyMomentOfAnOpening)
{
    std::atomic<bool> stops = false;
    std::thread resetting([&] {
        while (!stops)
            m_engine->resetAll();
    });
    for (std::uint16_t port = 20'000; port < 20'300; ++port) {
        Application app = application(port);
        app.send(tcpSyn);
        app.send(tcpPsh | tcpAck, "data");
        app.send(tcpFin | tcpAck);
    }
    stops = true;
    resetting.join();
    m_engine->resetAll();
    expectGone();
}

} // namespace
} // namespace ruvo::test
