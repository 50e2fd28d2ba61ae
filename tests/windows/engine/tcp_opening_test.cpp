// A connection that is opened: what the proxy is asked, and when the application hears of it.

#include "windows/engine/tcp_engine_fixture.h"

#include "windows/support/signal.h"

namespace ruvo::test {
namespace {

class TcpOpeningTest : public TcpEngineTest
{
protected:
    /// What the proxy is asked for by a connection of the application's.
    QByteArray requestOf(Application app)
    {
        EXPECT_TRUE(app.connect());
        return m_proxy->take().request;
    }
};

TEST_F(TcpOpeningTest, answersTheSynOnlyAfterTheProxysSuccess)
{
    Signal hasRequest;
    Signal mayAnswer;
    useScript([&](ProxyConnection &client, int) {
        EXPECT_EQ(client.receive(3), greeting);
        client.send(accepted);
        EXPECT_EQ(client.receive(10), request);
        hasRequest.set();
        mayAnswer.wait();
        client.send(connected);
        client.waitForEnd();
    });
    Application app = application(40001);
    app.send(tcpSyn);
    ASSERT_TRUE(hasRequest.wait());
    app.sendAt(1000, tcpSyn); // again: nobody has answered
    EXPECT_EQ(m_engine->connections(), 1u);
    EXPECT_EQ(m_adapter.unread(40001), 0u);
    mayAnswer.set();
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpSyn | tcpAck);
    EXPECT_EQ(reply->ack, 1001u);
    EXPECT_LT(reply->seq, 32'768u);
    EXPECT_EQ(reply->from, (Endpoint{server, 443}));
    EXPECT_EQ(reply->to, (Endpoint{guest, 40001}));
    EXPECT_TRUE(waitUntil([&] { return m_engine->establishedConnections() == 1; }));
    app.sendAt(1000, tcpSyn);
    EXPECT_EQ(m_engine->connections(), 1u);
    EXPECT_EQ(m_scripted->connections(), 1);
    EXPECT_EQ(m_adapter.unread(40001), 0u);
    app.send(tcpRst);
    expectGone();
}

TEST_F(TcpOpeningTest, asksForAnIpv4Address)
{
    EXPECT_EQ(requestOf(application(40002)), request);
    EXPECT_EQ(m_asked, (std::vector<Endpoint>{{server, 443}}));
}

TEST_F(TcpOpeningTest, asksForTheNameThatIsKnown)
{
    m_name = "www.example";
    EXPECT_EQ(requestOf(application(40003)),
              QByteArray::fromHex("050100030b") + "www.example" + QByteArray::fromHex("01bb"));
}

TEST_F(TcpOpeningTest, asksForALongNameAsItIs)
{
    m_name = std::string(253, 'n');
    const QByteArray wanted = requestOf(application(40004));
    EXPECT_EQ(wanted, QByteArray::fromHex("05010003fd") + QByteArray(253, 'n') + QByteArray::fromHex("01bb"));
}

TEST_F(TcpOpeningTest, asksForAnIpv6AddressAndInjectsNothing)
{
    sendIpv6(40005, tcpSyn, 1000);
    const StreamProxy::Stream stream = m_proxy->take();
    EXPECT_EQ(stream.request, QByteArray::fromHex("0501000420010db800000000000000000000000201bb"));
    EXPECT_EQ(m_asked, (std::vector<Endpoint>{{0, 443}}));
    EXPECT_TRUE(waitUntil([&] { return m_engine->establishedConnections() == 1; }));
    ASSERT_TRUE(sendAll(stream.socket.get(), "nobody hears this"));
    sendIpv6(40005, tcpRst, 1001);
    expectGone();
    EXPECT_EQ(m_adapter.unread(40005), 0u);
}

TEST_F(TcpOpeningTest, sendsDnsOfTheTunnelsOwnAddressToAPublicResolver)
{
    Application app = application(40006, {tunnel + 1, 53});
    app.send(tcpSyn);
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpSyn | tcpAck);
    EXPECT_EQ(reply->from, (Endpoint{tunnel + 1, 53}));
    EXPECT_EQ(m_proxy->take().request, QByteArray::fromHex("05010001080808080035"));
    EXPECT_EQ(m_asked, (std::vector<Endpoint>{{0x08080808, 53}}));
}

TEST_F(TcpOpeningTest, leavesOtherPortsOfThatAddressAlone)
{
    EXPECT_EQ(requestOf(application(40007, {tunnel + 1, 80})), QByteArray::fromHex("050100010a0607020050"));
}

TEST_F(TcpOpeningTest, goesToThePortThatWasChosen)
{
    StreamProxy other;
    useProxy(std::make_unique<StreamProxy>());
    usePort(other.port());
    Application app = application(40008);
    EXPECT_TRUE(app.connect());
    EXPECT_EQ(other.take().request, request);
    app.send(tcpRst);
    expectGone();
}

TEST_F(TcpOpeningTest, givesABannerRightBehindTheReplyToTheApplication)
{
    useProxy(std::make_unique<StreamProxy>(connected + "220 ready"));
    auto [app, upstream] = connectedApplication(40009);
    EXPECT_EQ(app.download(9), "220 ready");
}

TEST_F(TcpOpeningTest, readsAReplyWithANameToItsEnd)
{
    useProxy(std::make_unique<StreamProxy>(QByteArray::fromHex("0500000305") + "proxy" + QByteArray::fromHex("0438")
                                           + "banner"));
    auto [app, upstream] = connectedApplication(40010);
    EXPECT_EQ(app.download(6), "banner");
}

TEST_F(TcpOpeningTest, takesAnswersInSingleBytes)
{
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        for (const char byte : accepted)
            client.send(QByteArray(1, byte));
        client.receive(10);
        for (const char byte : connected + "x")
            client.send(QByteArray(1, byte));
        client.waitForEnd();
    });
    Application app = application(40011);
    ASSERT_TRUE(app.connect());
    EXPECT_EQ(app.download(1), "x");
    app.send(tcpRst);
    expectGone();
}

TEST_F(TcpOpeningTest, dropsWhatBelongsToNoConnection)
{
    Application app = application(40012);
    for (const std::uint8_t flags : {tcpAck, tcpFin, tcpRst, std::uint8_t(tcpFin | tcpAck)})
        app.sendAt(1000, flags);
    app.sendAt(1000, tcpPsh | tcpAck, "data");
    app.sendAt(1000, tcpSyn | tcpAck);
    EXPECT_EQ(m_engine->connections(), 0u);
    EXPECT_EQ(m_adapter.unread(40012), 0u);
}

TEST_F(TcpOpeningTest, dropsAWrongChecksum)
{
    PacketBytes packet = buildTcpPacket(guest, 40013, server, 443, 1000, 0, tcpSyn, nullptr, 0);
    packet[36] ^= 1;
    m_engine->handleTcpPacket(parsePacket(packet.data(), packet.size()));
    EXPECT_EQ(m_engine->connections(), 0u);
    packet[36] ^= 1;
    m_engine->handleTcpPacket(parsePacket(packet.data(), packet.size()));
    EXPECT_EQ(m_engine->connections(), 1u);
}

TEST_F(TcpOpeningTest, countsTheStates)
{
    const Socket mute = listeningSocket();
    auto [app, upstream] = connectedApplication(40015);
    usePort(portOf(mute.get()));
    application(40016).send(tcpSyn);
    EXPECT_TRUE(waitUntil([&] {
        m_log.clear();
        m_engine->logConnectionStates();
        return m_log.lines()
               == QStringList{"DEBUG [TCP-DIAG] Total connections: 2 CONNECTING: 0 H_GREETING: 0 H_AUTH: 1 "
                              "H_REQUEST: 0 H_RESPONSE: 0 ESTABLISHED: 1"};
    })) << m_log.lines().join('\n').toStdString();
    m_engine->resetAll();
    m_log.clear();
    m_engine->logConnectionStates();
    EXPECT_EQ(m_log.lines(), QStringList());
}

} // namespace
} // namespace ruvo::test
