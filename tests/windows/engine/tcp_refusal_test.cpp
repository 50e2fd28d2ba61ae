// A proxy that refuses: what is said, what the application hears, and that nothing stays.

#include "windows/engine/tcp_engine_fixture.h"

#include "windows/support/signal.h"

namespace ruvo::test {
namespace {

class TcpRefusalTest : public TcpEngineTest
{
protected:
    void openAgainst(const QByteArray &method, const QByteArray &reply = {})
    {
        useAnswers(method, reply);
        application(41000).send(tcpSyn);
        expectGone();
        EXPECT_EQ(m_adapter.unread(41000), 0u) << "only a refused connect is answered";
    }
    static QString requestRejected(const QString &what, const QString &destination = "93.184.216.34:443")
    {
        return "CRITICAL [FAIL-7] SOCKS5 CONNECT request REJECTED by proxy - " + what
               + " (1=general failure, 2=not allowed, 3=network unreachable, 4=host unreachable, "
                 "5=connection refused, 6=TTL expired, 7=command not supported, 8=address type not supported) \""
               + destination + '"';
    }
};

TEST_F(TcpRefusalTest, ofTheConnectRefusesTheSyn)
{
    usePort(closedPort());
    Application app = application(41001);
    app.send(tcpSyn);
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpRst | tcpAck);
    EXPECT_EQ(reply->seq, 0u);
    EXPECT_EQ(reply->ack, 1001u);
    EXPECT_EQ(reply->from, (Endpoint{server, 443}));
    expectLine("CRITICAL [FAIL-5] ConnectEx to proxy FAILED on completion - socket error: 10061 "
               "(10061=WSAECONNREFUSED, 10060=WSAETIMEDOUT, 10051=WSAENETUNREACH)");
    expectGone();
}

TEST_F(TcpRefusalTest, ofTheConnectOfAnIpv6ConnectionIsSilent)
{
    usePort(closedPort());
    sendIpv6(41002, tcpSyn, 1000);
    expectGone();
    EXPECT_EQ(m_adapter.unread(41002), 0u);
}

TEST_F(TcpRefusalTest, ofTheMethodNamesIt)
{
    openAgainst(QByteArray::fromHex("05ff"));
    expectLine("CRITICAL [FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 2 method: 255");
}

TEST_F(TcpRefusalTest, byAnotherVersionIsOne)
{
    openAgainst(QByteArray::fromHex("0400"));
    expectLine("CRITICAL [FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 2 method: 0");
}

TEST_F(TcpRefusalTest, byHalfAMethodReplySaysWhatCame)
{
    openAgainst(QByteArray::fromHex("05"));
    expectLine("CRITICAL [FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 1 method: 0");
}

TEST_F(TcpRefusalTest, ofTheRequestNamesItsReason)
{
    openAgainst(accepted, QByteArray::fromHex("05050001000000000000"));
    expectLine(requestRejected("bytes: 10 ver: 5 reply: 5"));
}

TEST_F(TcpRefusalTest, ofARequestForANameNamesThat)
{
    m_name = "refused.example";
    openAgainst(accepted, QByteArray::fromHex("05020001000000000000"));
    expectLine(requestRejected("bytes: 10 ver: 5 reply: 2", "refused.example:443"));
}

TEST_F(TcpRefusalTest, byHalfAReplySaysWhatCame)
{
    openAgainst(accepted, QByteArray::fromHex("05000001"));
    expectLine(requestRejected("bytes: 4 ver: 5 reply: 0"));
}

TEST_F(TcpRefusalTest, byAResetIsTheEnd)
{
    useScript([](ProxyConnection &client, int) {
        client.receive(3);
        client.reset();
    });
    application(41003).send(tcpSyn);
    expectGone();
    EXPECT_EQ(m_adapter.unread(41003), 0u);
}

TEST_F(TcpRefusalTest, ofATooLongNameComesBehindTheMethod)
{
    QByteArray behindMethod = "not looked at";
    Signal isDone;
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        client.send(accepted);
        behindMethod = client.receive(1);
        isDone.set();
    });
    m_name = std::string(506, 'n');
    application(41004).send(tcpSyn);
    expectLine("WARNING [BUFFER WARNING] Domain too long: \"" + QString(506, 'n') + '"');
    ASSERT_TRUE(isDone.wait());
    EXPECT_EQ(behindMethod, QByteArray());
    expectGone();
}

TEST_F(TcpRefusalTest, isNotForANameOfTheLargestRequest)
{
    QByteArray wanted;
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        client.send(accepted);
        wanted = client.receive(512);
        client.send(connected);
        client.waitForEnd();
    });
    m_name = std::string(505, 'n');
    Application app = application(41005);
    EXPECT_TRUE(app.connect());
    EXPECT_EQ(wanted.size(), 512);
    EXPECT_EQ(wanted.mid(5, 505), QByteArray(505, 'n'));
    EXPECT_EQ(wanted.right(2), QByteArray::fromHex("01bb"));
    app.send(tcpRst);
    expectGone();
}

TEST_F(TcpRefusalTest, atOnceOfTheConnectIsTheEnd)
{
    m_services.proxyHost = L"255.255.255.255";
    m_engine = std::make_unique<TcpEngine>(m_services);
    application(41006).send(tcpSyn);
    EXPECT_TRUE(waitUntil([&] { return m_engine->connections() == 0 && m_port.inFlight() == 0; }));
    EXPECT_TRUE(m_log.contains("CRITICAL [FAIL-")) << m_log.lines().join('\n').toStdString();
}

// Half an answer, and then silence.
TEST_F(TcpRefusalTest, byExpirySaysWhatCame)
{
    Signal hasGreeting;
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        client.send(QByteArray::fromHex("05"));
        hasGreeting.set();
        client.waitForEnd();
    });
    application(41007).send(tcpSyn);
    ASSERT_TRUE(hasGreeting.wait());
    pass(std::chrono::seconds(59));
    m_engine->housekeeping();
    EXPECT_EQ(m_engine->connections(), 1u);
    pass(std::chrono::seconds(1));
    m_engine->housekeeping();
    expectGone();
    EXPECT_EQ(m_log.linesWith("[FAIL-6] SOCKS5 auth REJECTED by proxy - bytes:").size(), 1);
}

} // namespace
} // namespace ruvo::test
