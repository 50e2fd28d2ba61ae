// Ends that nothing waited before, and connections that take their time to end.

#include "windows/engine/tcp_engine_fixture.h"

namespace ruvo::test {
namespace {

class TcpLateEndTest : public TcpEngineTest
{
protected:
    /// Its SYN has no options, so its window is not scaled.
    Application unscaledApplication(std::uint16_t port)
    {
        Application application = this->application(port);
        const Bytes syn = referenceTcpPacket({guest, port, server, 443}, 1000, 0, tcpSyn, {}, {}, 1);
        m_engine->handleTcpPacket(parsePacket(syn.data(), syn.size()));
        const std::optional<Reply> answer = application.next();
        EXPECT_TRUE(answer);
        application.nextSequence = 1001;
        application.acknowledgement = answer ? answer->seq + 1 : 0;
        application.send(tcpAck);
        return application;
    }
};

TEST_F(TcpLateEndTest, finOfTheUpstreamThatTheAdapterRefusesGoesOutLater)
{
    auto [application, upstream] = connectedApplication(47001);
    ASSERT_TRUE(sendAll(upstream.get(), "bye"));
    EXPECT_TRUE(application.read());
    m_adapter.setRoom(0);
    upstream.reset();
    ASSERT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1 && m_port.inFlight() == 0; }));
    m_adapter.setRoom(std::nullopt);
    drain();
    EXPECT_EQ(m_adapter.unread(47001), 1u);
    EXPECT_EQ(m_engine->closingConnections(), 0u);
}

TEST_F(TcpLateEndTest, finOfTheUpstreamBehindAFullWindowGoesOutOnceItOpens)
{
    startFlowControl();
    Application application = unscaledApplication(47002);
    Socket upstream = m_proxy->take().socket;
    const QByteArray bytes = pattern(65'535); // the whole window
    ASSERT_TRUE(sendAll(upstream.get(), bytes));
    while (application.received.size() < bytes.size())
        ASSERT_TRUE(application.read()); // and acknowledges nothing yet
    upstream.reset();
    ASSERT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1; }));
    EXPECT_EQ(m_adapter.unread(47002), 0u);
    application.send(tcpAck);
    EXPECT_TRUE(waitUntil([&] { return m_adapter.unread(47002) == 1; }));
}

// Each keeps a socket and a buffer while its proxy does not close: the longest closing one makes room.
TEST_F(TcpLateEndTest, closingConnectionsCountForTheLimit)
{
    constexpr int limit = 4;
    m_engine = std::make_unique<TcpEngine>(m_services, limit);
    std::vector<Socket> upstreams;
    for (int i = 0; i < 3 * limit; ++i) {
        auto [application, upstream] = connectedApplication(static_cast<std::uint16_t>(48000 + i));
        upstreams.push_back(std::move(upstream));
        application.send(tcpFin | tcpAck);
        pass(std::chrono::seconds(1));
        EXPECT_EQ(m_engine->connections(), 0u);
        EXPECT_LE(m_engine->closingConnections(), std::size_t{limit});
    }
    EXPECT_EQ(m_engine->closingConnections(), std::size_t{limit});
}

} // namespace
} // namespace ruvo::test
