// How connections end: from either side, in each state, with what is still to be delivered.

#include "windows/engine/tcp_engine_fixture.h"

#include <future>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpEndingTest : public TcpEngineTest
{
protected:
    /// The next packet is FIN|ACK with these numbers.
    static void expectFin(Application &app, std::uint32_t seq, std::uint32_t ack)
    {
        const std::optional<Reply> reply = app.next();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->flags, tcpFin | tcpAck);
        EXPECT_EQ(reply->seq, seq);
        EXPECT_EQ(reply->ack, ack);
        EXPECT_TRUE(reply->payload.isEmpty());
    }
};

TEST_F(TcpEndingTest, byTheApplicationTellsTheUpstream)
{
    auto [app, upstream] = connectedApplication(43001);
    app.send(tcpFin | tcpAck);
    expectFin(app, app.acknowledgement, app.nextSequence);
    EXPECT_EQ(m_engine->connections(), 0u);
    EXPECT_EQ(m_engine->establishedConnections(), 0u);
    EXPECT_EQ(readToEnd(upstream.get()), Ending::Proper);
    upstream.reset();
    expectGone();
    EXPECT_TRUE(m_log.contains("DEBUG [TCP-CONN] Cleaned up connection, total active: 0"));
}

TEST_F(TcpEndingTest, byAFinOfAnotherNumberDoesNotHappen)
{
    auto [app, upstream] = connectedApplication(43002);
    for (const int offset : {-1, 1, 1000})
        app.sendAt(app.nextSequence + static_cast<std::uint32_t>(offset), tcpFin | tcpAck);
    EXPECT_EQ(m_adapter.unread(43002), 0u);
    app.send(tcpPsh | tcpAck, "alive");
    EXPECT_EQ(receiveBytes(upstream.get(), 5), "alive");
}

TEST_F(TcpEndingTest, withTheLastBytesInTheFinDeliversThem)
{
    auto [app, upstream] = connectedApplication(43003);
    app.send(tcpPsh | tcpAck, "first and ");
    EXPECT_TRUE(app.read());
    app.send(tcpFin | tcpPsh | tcpAck, "last");
    expectFin(app, app.acknowledgement, app.nextSequence);
    QByteArray got;
    EXPECT_EQ(readToEnd(upstream.get(), &got), Ending::Proper);
    EXPECT_EQ(got, "first and last");
    upstream.reset();
    expectGone();
}

TEST_F(TcpEndingTest, rightBehindTheLastWriteDeliversAll)
{
    auto [app, upstream] = connectedApplication(43004);
    const QByteArray bytes = pattern(1'900'000);
    ASSERT_TRUE(app.upload(bytes));
    app.send(tcpFin | tcpAck);
    expectFin(app, app.acknowledgement, app.nextSequence);
    pass(59s);
    m_engine->housekeeping(); // a slow proxy is no dead one
    QByteArray got;
    EXPECT_EQ(readToEnd(upstream.get(), &got), Ending::Proper);
    EXPECT_TRUE(got == bytes);
    upstream.reset();
    expectGone();
}

TEST_F(TcpEndingTest, byTheApplicationDropsWhatTheUpstreamStillSends)
{
    auto [app, upstream] = connectedApplication(43005);
    app.send(tcpPsh | tcpAck, "request");
    EXPECT_TRUE(app.read());
    app.send(tcpFin | tcpAck);
    expectFin(app, app.acknowledgement, app.nextSequence);
    EXPECT_EQ(receiveBytes(upstream.get(), 7), "request");
    EXPECT_TRUE(sendAll(upstream.get(), pattern(3'000'000)));
    upstream.reset();
    expectGone();
    EXPECT_EQ(m_adapter.unread(43005), 0u);
}

TEST_F(TcpEndingTest, byTheApplicationWhileTheUpstreamIsHeldUpGoesOn)
{
    auto [app, upstream] = connectedApplication(43006);
    m_adapter.setRoom(0);
    auto sent = std::async(std::launch::async, [&] { return sendAll(upstream.get(), pattern(12'000'000)); });
    ASSERT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; }));
    app.send(tcpPsh | tcpAck, "last words");
    app.send(tcpFin | tcpAck);
    EXPECT_TRUE(sent.get()) << "nobody reads it any more";
    EXPECT_EQ(receiveBytes(upstream.get(), 10), "last words");
    EXPECT_EQ(readToEnd(upstream.get()), Ending::Proper);
    upstream.reset();
    EXPECT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; }));
    EXPECT_EQ(m_engine->closingConnections(), 1u);
    m_adapter.setRoom(std::nullopt);
    drain();
    while (!app.isFinished)
        ASSERT_TRUE(app.read());
    EXPECT_TRUE(pattern(12'000'000).startsWith(app.received));
    EXPECT_GE(app.received.size(), 150);
    expectGone();
}

TEST_F(TcpEndingTest, byTheUpstreamTellsTheApplication)
{
    auto [app, upstream] = connectedApplication(43007);
    ASSERT_TRUE(sendAll(upstream.get(), "bye"));
    upstream.reset();
    EXPECT_TRUE(app.read());
    EXPECT_EQ(app.received, "bye");
    expectFin(app, app.acknowledgement, app.nextSequence);
    expectGone();
}

TEST_F(TcpEndingTest, byTheUpstreamComesBehindWhatWaits)
{
    auto [app, upstream] = connectedApplication(43008);
    m_adapter.setRoom(0);
    const QByteArray bytes = pattern(20'000);
    ASSERT_TRUE(sendAll(upstream.get(), bytes));
    upstream.reset();
    EXPECT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1 && m_port.inFlight() == 0; }));
    EXPECT_EQ(m_engine->connections(), 0u);
    m_adapter.setRoom(7);
    drain();
    EXPECT_EQ(m_adapter.unread(43008), 7u);
    EXPECT_EQ(m_engine->closingConnections(), 1u);
    m_adapter.setRoom(std::nullopt);
    drain();
    EXPECT_EQ(m_engine->closingConnections(), 0u);
    while (!app.isFinished)
        ASSERT_TRUE(app.read());
    EXPECT_TRUE(app.received == bytes);
    expectGone();
}

TEST_F(TcpEndingTest, byTheUpstreamStillDeliversWhatTheApplicationSent)
{
    auto [app, upstream] = connectedApplication(43009);
    const QByteArray bytes = pattern(1'900'000);
    ASSERT_TRUE(app.upload(bytes));
    shutdown(upstream.get(), SD_SEND);
    expectFin(app, app.acknowledgement, app.nextSequence);
    app.send(tcpPsh | tcpAck, "too late");
    QByteArray got;
    EXPECT_EQ(readToEnd(upstream.get(), &got, false), Ending::Proper);
    EXPECT_TRUE(got == bytes);
    expectGone();
    EXPECT_EQ(m_adapter.unread(43009), 0u);
}

TEST_F(TcpEndingTest, byAResetOfTheUpstreamEndsTheStream)
{
    auto [app, upstream] = connectedApplication(43010);
    resetConnection(upstream);
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpFin | tcpAck);
    expectGone();
}

TEST_F(TcpEndingTest, byTheApplicationsResetResetsTheUpstream)
{
    auto [app, upstream] = connectedApplication(43011);
    app.send(tcpPsh | tcpAck, "part of a whole");
    app.send(tcpRst);
    EXPECT_EQ(m_engine->connections(), 0u);
    EXPECT_EQ(readToEnd(upstream.get()), Ending::Reset);
    expectGone();
}

TEST_F(TcpEndingTest, byTheApplicationsResetWhileItsBytesWaitResetsTheUpstream)
{
    auto [app, upstream] = connectedApplication(43012);
    m_adapter.setRoom(0);
    ASSERT_TRUE(sendAll(upstream.get(), pattern(10'000)));
    // One of its packets gets through, so the others have come as far as that.
    m_adapter.setRoom(1);
    ASSERT_TRUE(waitUntil([&] {
        drain();
        return m_adapter.unread(43012) == 1;
    }));
    EXPECT_TRUE(app.read());
    app.send(tcpRst);
    EXPECT_EQ(readToEnd(upstream.get()), Ending::Reset);
    m_adapter.setRoom(std::nullopt);
    drain();
    EXPECT_EQ(m_adapter.unread(43012), 0u) << "it has reset the connection";
    expectGone();
}

TEST_F(TcpEndingTest, byAResetWhileConnectingLeavesNothing)
{
    const Socket mute = listeningSocket();
    usePort(portOf(mute.get()));
    Application app = application(43013);
    app.send(tcpSyn);
    EXPECT_EQ(m_engine->connections(), 1u);
    app.send(tcpRst);
    EXPECT_EQ(m_engine->connections(), 0u);
    expectGone();
    EXPECT_EQ(m_adapter.unread(43013), 0u);
    const Socket theirs(accept(mute.get(), nullptr, nullptr));
    EXPECT_NE(readToEnd(theirs.get()), Ending::None);
}

TEST_F(TcpEndingTest, byAFinWhileConnectingIsAnswered)
{
    const Socket mute = listeningSocket();
    usePort(portOf(mute.get()));
    Application app = application(43014);
    app.send(tcpSyn);
    app.send(tcpFin);
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpFin | tcpAck);
    EXPECT_EQ(reply->ack, 1002u);
    expectGone();
}

TEST_F(TcpEndingTest, byAResetBehindTheApplicationsFinEndsIt)
{
    auto [app, upstream] = connectedApplication(43015);
    app.send(tcpFin | tcpAck);
    EXPECT_EQ(m_engine->closingConnections(), 1u);
    app.send(tcpRst);
    EXPECT_EQ(m_engine->closingConnections(), 0u);
    EXPECT_NE(readToEnd(upstream.get()), Ending::None);
    expectGone();
}

TEST_F(TcpEndingTest, byAResetBehindTheUpstreamsEndDropsWhatWaits)
{
    auto [app, upstream] = connectedApplication(43016);
    m_adapter.setRoom(0);
    ASSERT_TRUE(sendAll(upstream.get(), pattern(20'000)));
    upstream.reset();
    EXPECT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1; }));
    app.send(tcpRst);
    expectGone();
    m_adapter.setRoom(std::nullopt);
    drain();
    EXPECT_EQ(m_adapter.unread(43016), 0u);
}

TEST_F(TcpEndingTest, makesRoomForANewConnectionOfTheSamePort)
{
    auto [app, upstream] = connectedApplication(43017);
    m_adapter.setRoom(0);
    ASSERT_TRUE(sendAll(upstream.get(), pattern(20'000)));
    upstream.reset();
    EXPECT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1; }));
    m_adapter.setRoom(std::nullopt);
    Application again(*m_engine, m_adapter, {{guest, 43017}, {server, 443}}, 77'000);
    ASSERT_TRUE(again.connect());
    EXPECT_EQ(m_engine->closingConnections(), 0u);
    const Socket second = m_proxy->take().socket;
    drain();
    again.send(tcpPsh | tcpAck, "anew");
    EXPECT_EQ(receiveBytes(second.get(), 4), "anew");
    EXPECT_TRUE(again.read());
    EXPECT_EQ(m_adapter.unread(43017), 0u) << "nothing of the old connection";
}

TEST_F(TcpEndingTest, takesAcknowledgementsUntilAllHasGoneOut)
{
    Application app = application(43018);
    const Bytes syn = referenceTcpPacket({guest, 43018, server, 443}, 1000, 0, tcpSyn, {}, {}, 1);
    m_engine->handleTcpPacket(parsePacket(syn.data(), syn.size()));
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    app.nextSequence = 1001;
    app.acknowledgement = reply->seq + 1;
    app.send(tcpAck);
    Socket upstream = m_proxy->take().socket;
    const QByteArray bytes = pattern(150'000);
    ASSERT_TRUE(sendAll(upstream.get(), bytes));
    upstream.reset();
    EXPECT_TRUE(waitUntil([&] { return m_engine->closingConnections() == 1; }));
    startFlowControl();
    EXPECT_TRUE(app.download(bytes.size()) == bytes);
    app.send(tcpAck);
    while (!app.isFinished)
        ASSERT_TRUE(app.read());
    expectGone();
}

} // namespace
} // namespace ruvo::test
