// What the engine's associations tell of the proxy.

#include "windows/engine/udp_flows_fixture.h"
#include "windows/socks5/recording_witness.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

namespace ruvo::test {
namespace {

class UdpFlowsWitnessTest : public UdpFlowsTest
{
protected:
    void SetUp() override
    {
        UdpFlowsTest::SetUp();
        m_witness.whenTold = [this] { m_flows->size(); };
        m_services.proxyWitness = m_witness.function();
    }
    /// Another kind of main inbound, and a datagram for it.
    void sendTowards(AssociationServer::Answers answers)
    {
        useProxy(std::move(answers));
        send(5000, "datagram");
    }

    RecordingWitness m_witness;
};

TEST_F(UdpFlowsWitnessTest, hearsOfARefusedConnect)
{
    const std::uint16_t nobody = closedPort();
    goTo(nobody);
    send(5000, "datagram");
    m_witness.expectFailure(nobody);
    expectGone();
}

TEST_F(UdpFlowsWitnessTest, hearsOfAnotherMethod)
{
    sendTowards({.method = QByteArray::fromHex("05ff")});
    m_witness.expectFailure(m_proxy->port());
}

TEST_F(UdpFlowsWitnessTest, hearsOfAnEndInTheMiddleOfTheMethod)
{
    sendTowards({.method = QByteArray::fromHex("05")});
    m_witness.expectFailure(m_proxy->port());
}

TEST_F(UdpFlowsWitnessTest, hearsOfAProxyThatSaysNothing)
{
    sendTowards({.isMute = true});
    pass(UdpFlows::handshakeTimeout);
    m_flows->expireHandshakes();
    m_witness.expectFailure(m_proxy->port());
    expectGone();
}

TEST_F(UdpFlowsWitnessTest, hearsThatItIsAccepted)
{
    establish(5000);
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpFlowsWitnessTest, hearsWhichInboundItWas)
{
    send(5000, "query", {server, 53});
    m_witness.expectAccepted(m_dns->port());
}

TEST_F(UdpFlowsWitnessTest, takesARefusedRequestForALivingProxy)
{
    sendTowards({.reply = QByteArray::fromHex("05010001000000000000")});
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpFlowsWitnessTest, takesAReplyThatIsCutShortForALivingProxy)
{
    sendTowards({.reply = QByteArray::fromHex("0500")});
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpFlowsWitnessTest, hearsWhenItWasAcceptedThoughTheRequestIsGivenUpLater)
{
    Signal isAsked;
    const ParallelProxy hanging([&](ProxyConnection &connection, int) {
        connection.receive(3);
        connection.send(QByteArray::fromHex("0500"));
        connection.receive(10);
        isAsked.set();
        connection.waitForEnd();
    });
    goTo(hanging.port());
    send(5000, "datagram");
    ASSERT_TRUE(isAsked.wait());
    const SteadyTime asked = steadyNow();
    pass(UdpFlows::handshakeTimeout);
    m_flows->expireHandshakes();
    m_witness.expectAcceptedBy(asked, hanging.port());
    expectGone();
}

TEST_F(UdpFlowsWitnessTest, hearsNothingOfAnAttemptThatTheStopHasEnded)
{
    sendTowards({.isMute = true});
    m_flows->closeAll();
    expectGone();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(UdpFlowsWitnessTest, hearsNothingOfAFailureOfThisMachine)
{
    const ImportRedirection<IMPORT(WSASocketW)> none([](auto...) {
        WSASetLastError(WSAEMFILE);
        return INVALID_SOCKET;
    });
    send(5000, "datagram");
    expectGone();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

} // namespace
} // namespace ruvo::test
