// Associations that are not granted, and receives that are not posted.

#include "windows/engine/udp_flows_fixture.h"

#include "support/qt_printers.h"

namespace ruvo::test {
namespace {

class UdpFlowsFailureTest : public UdpFlowsTest
{
protected:
    /// A new flow is given up, nothing else is said, and the next datagram tries again.
    void expectGivenUp(const QStringList &lines = {})
    {
        send(5000, "in vain");
        expectGone();
        for (const QString &line : lines)
            expectLine(line);
        EXPECT_EQ(m_log.lines().size(), lines.size()) << m_log.lines().join('\n').toStdString();
        m_log.clear();
        send(5000, "in vain");
        expectGone();
        EXPECT_EQ(m_log.lines().size(), lines.size()) << "each new datagram tries";
    }
    void expectGivenUpAfter(const QByteArray &reply, const QStringList &lines)
    {
        useProxy({.reply = reply});
        expectGivenUp(lines);
    }
    /// The same flow is given up over and over: of its line ten and every hundredth are written.
    void expectCapped(const QString &line)
    {
        for (int i = 0; i < 210; ++i) {
            send(5000, "in vain");
            expectGone();
        }
        EXPECT_EQ(m_log.linesWith(line).size(), 12);
        EXPECT_EQ(m_log.lines().size(), 12);
    }
};

TEST_F(UdpFlowsFailureTest, isSilentAboutAProxyThatIsNotThere)
{
    goTo(closedPort());
    expectGivenUp();
}

TEST_F(UdpFlowsFailureTest, isSilentAboutAConnectThatIsRefusedAtOnce)
{
    goTo(0);
    expectGivenUp();
}

TEST_F(UdpFlowsFailureTest, saysThatTheProxyWantsAPassword)
{
    useProxy({.method = QByteArray::fromHex("05ff")});
    expectGivenUp({"WARNING SOCKS5 UDP auth failed"});
}

TEST_F(UdpFlowsFailureTest, saysTheSameWhenTheMethodIsCutShort)
{
    useProxy({.method = QByteArray::fromHex("05")});
    expectGivenUp({"WARNING SOCKS5 UDP auth failed"});
}

TEST_F(UdpFlowsFailureTest, tellsWhatARefusalMeans)
{
    expectGivenUpAfter(QByteArray::fromHex("05010001000000000000"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 10 ver: 5 status: 1 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsHowShortAReplyIs)
{
    expectGivenUpAfter(QByteArray::fromHex("05000001"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 4 ver: 5 status: 0 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsThatThereIsNoReplyAtAll)
{
    expectGivenUpAfter(QByteArray(), {"WARNING SOCKS5 UDP associate failed - bytes: 0 ver: 0 status: 0 "
                                      "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsTheVersionOfAReplyThatIsOfAnother)
{
    expectGivenUpAfter(QByteArray::fromHex("04000001000000000000"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 10 ver: 4 status: 0 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, saysThatItCannotUseARelayWithoutIpv4Address)
{
    expectGivenUpAfter(QByteArray::fromHex("050000030a") + "relay.test" + QByteArray::fromHex("01bb"),
                       {"WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, opensNothingForAProxyHostThatIsNoAddress)
{
    m_services.proxyHost = L"nonsense";
    makeFlows();
    send(5000, "in vain");
    EXPECT_EQ(m_flows->size(), 0u);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Invalid proxy address: \"nonsense\""});
}

TEST_F(UdpFlowsFailureTest, writesTenAndEveryHundredthOfALine)
{
    useProxy({.method = QByteArray::fromHex("05ff")});
    expectCapped("WARNING SOCKS5 UDP auth failed");
}

// Receives that are not posted.

TEST_F(UdpFlowsFailureTest, saysThatThereIsNoFlowToReceiveFor)
{
    for (int i = 0; i < 210; ++i)
        m_flows->postUdpRecv(nullptr);
    EXPECT_EQ(m_log.linesWith("WARNING [postUdpRecv] EARLY EXIT: flow is null").size(), 12);
}

TEST_F(UdpFlowsFailureTest, saysThatAFlowHasNoSocketToReceiveFrom)
{
    useProxy({.isMute = true});
    send(5000, "in vain");
    const UdpFlowPtr flow = onlyFlow();
    for (int i = 0; i < 210; ++i)
        m_flows->postUdpRecv(flow);
    EXPECT_EQ(m_log.linesWith("WARNING [postUdpRecv] EARLY EXIT: flow->socks is null, port: 5000").size(), 12);
    m_log.clear();
    m_flows->cleanupFlow(flow);
    m_flows->postUdpRecv(flow);
    EXPECT_TRUE(m_log.lines().isEmpty()) << "one that is closed receives nothing, which is as it should be";
}

TEST_F(UdpFlowsFailureTest, saysSixTimesThatADnsFlowReceivesAlready)
{
    establish(5000);
    const UdpFlowPtr other = onlyFlow();
    send(5000, "query", {tunnel + 1, 53});
    m_dns->receive();
    const UdpFlowPtr flow = m_flows->flows().back();
    ASSERT_EQ(flow->id().key.destinationPort, 53);
    for (int i = 0; i < 10; ++i) {
        m_flows->postUdpRecv(flow);
        m_flows->postUdpRecv(other);
    }
    const QString line = "WARNING [postUdpRecv] EARLY EXIT: recvPending already true, socket: %";
    EXPECT_EQ(withoutNumbers(m_log.lines()), QStringList(6, line));
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 4; }));
}

} // namespace
} // namespace ruvo::test
