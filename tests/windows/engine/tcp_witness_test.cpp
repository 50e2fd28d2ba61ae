// What the engine's connections tell of the proxy.

#include "windows/engine/tcp_engine_fixture.h"
#include "windows/socks5/recording_witness.h"
#include "windows/support/signal.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpWitnessTest : public TcpEngineTest
{
protected:
    void SetUp() override
    {
        m_witness.whenTold = [this] { m_engine->connections(); };
        m_services.proxyWitness = m_witness.function();
        TcpEngineTest::SetUp();
    }
    void openAgainst(const QByteArray &method, const QByteArray &reply = {})
    {
        useAnswers(method, reply);
        application(42000).send(tcpSyn);
        expectGone();
    }

    RecordingWitness m_witness;
};

TEST_F(TcpWitnessTest, hearsOfARefusedConnect)
{
    const std::uint16_t nobody = closedPort();
    usePort(nobody);
    application(42001).send(tcpSyn);
    m_witness.expectFailure(nobody);
    expectGone();
}

TEST_F(TcpWitnessTest, hearsOfAnotherMethod)
{
    openAgainst(QByteArray::fromHex("05ff"));
    m_witness.expectFailure(m_scripted->port());
}

TEST_F(TcpWitnessTest, hearsOfAnEndWithoutAnAnswer)
{
    openAgainst({});
    m_witness.expectFailure(m_scripted->port());
}

TEST_F(TcpWitnessTest, hearsOfAProxyThatSaysNothing)
{
    const Socket mute = listeningSocket();
    usePort(portOf(mute.get()));
    application(42002).send(tcpSyn);
    pass(60s);
    m_engine->housekeeping();
    m_witness.expectFailure(portOf(mute.get()));
    expectGone();
}

TEST_F(TcpWitnessTest, hearsThatItIsAccepted)
{
    auto [app, upstream] = connectedApplication(42003);
    m_witness.expectAccepted(m_proxy->port());
    app.send(tcpRst);
    expectGone();
}

TEST_F(TcpWitnessTest, takesARefusedRequestForALivingProxy)
{
    openAgainst(accepted, QByteArray::fromHex("05010001000000000000"));
    m_witness.expectAccepted(m_scripted->port());
}

TEST_F(TcpWitnessTest, takesAnEndBehindTheMethodForALivingProxy)
{
    openAgainst(accepted);
    m_witness.expectAccepted(m_scripted->port());
}

TEST_F(TcpWitnessTest, hearsWhenItWasAcceptedThoughTheRequestIsGivenUpLater)
{
    Signal isAsked;
    useScript([&](ProxyConnection &client, int) {
        client.receive(3);
        client.send(accepted);
        client.receive(10);
        isAsked.set();
        client.waitForEnd();
    });
    application(42006).send(tcpSyn);
    ASSERT_TRUE(isAsked.wait());
    const SteadyTime asked = steadyNow();
    pass(60s);
    m_engine->housekeeping();
    m_witness.expectAcceptedBy(asked, m_scripted->port());
    expectGone();
}

TEST_F(TcpWitnessTest, hearsNothingOfAnAttemptThatTheApplicationGaveUp)
{
    const Socket mute = listeningSocket();
    usePort(portOf(mute.get()));
    Application app = application(42004);
    app.send(tcpSyn);
    app.send(tcpRst);
    expectGone();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(TcpWitnessTest, hearsNothingOfAnAttemptThatTheStopHasEnded)
{
    const Socket mute = listeningSocket();
    usePort(portOf(mute.get()));
    application(42005).send(tcpSyn);
    m_engine->close();
    expectGone();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

} // namespace
} // namespace ruvo::test
