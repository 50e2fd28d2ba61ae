// What connections of the NAT path tell of the proxy.

#include "windows/nat/relay_connector_fixture.h"

#include "windows/socks5/mute_port.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

namespace ruvo::test {
namespace {

class RelayWitnessTest : public RelayConnectorTest
{
protected:
    void SetUp() override
    {
        RelayConnectorTest::SetUp();
        m_witness.whenTold = [this] { m_connector->waiting(); };
    }
    /// What a proxy tells that answers `method` to the greeting, and `reply` to the request if there is one.
    void answer(const QByteArray &method, const QByteArray &reply = {})
    {
        startProxy([=](ProxyConnection &proxied, int) {
            proxied.receive(3);
            proxied.send(method);
            if (method != methodAccepted)
                return;
            proxied.receive(addressRequest.size());
            proxied.send(reply);
            proxied.waitForEnd();
        });
    }
};

TEST_F(RelayWitnessTest, hearsOfARefusedConnect)
{
    routeThrough(closedPort());
    expectRefused(relay());
    m_witness.expectFailure(m_route->proxyPort);
}

TEST_F(RelayWitnessTest, hearsOfBothAttemptsOfOneClient)
{
    m_name = "example.com";
    routeThrough(closedPort());
    expectRefused(relay());
    m_witness.expect({{m_route->proxyPort, ProxySign::Failed}, {m_route->proxyPort, ProxySign::Failed}});
}

TEST_F(RelayWitnessTest, hearsOfAConnectThatNobodyAnswers)
{
    const MutePort mute;
    routeThrough(mute.number());
    const Client client = relay();
    expireAll();
    m_witness.expectFailure(mute.number());
    expectRefused(client);
}

TEST_F(RelayWitnessTest, hearsOfAProxyThatSaysNothing)
{
    const Socket mute = listeningSocket();
    routeThrough(portOf(mute.get()));
    const Client client = relay();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
    expireAll();
    m_witness.expectFailure(m_route->proxyPort);
    expectRefused(client);
}

TEST_F(RelayWitnessTest, hearsOfAnotherMethod)
{
    answer(QByteArray::fromHex("05ff"));
    expectRefused(relay());
    m_witness.expectFailure(m_proxy->port());
}

TEST_F(RelayWitnessTest, hearsOfAnEndWithoutAnAnswer)
{
    answer({});
    expectRefused(relay());
    m_witness.expectFailure(m_proxy->port());
}

TEST_F(RelayWitnessTest, hearsThatItIsAccepted)
{
    answer(methodAccepted, connected + "hello");
    const Client client = relay();
    EXPECT_EQ(receiveBytes(client.socket.get(), 5), "hello");
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(RelayWitnessTest, takesARefusedRequestForALivingProxy)
{
    answer(methodAccepted, QByteArray::fromHex("05050001000000000000"));
    expectRefused(relay());
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(RelayWitnessTest, takesARequestThatNobodyAnswersForALivingProxy)
{
    Signal isAsked;
    startProxy([&](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        isAsked.set();
        proxied.waitForEnd();
    });
    const Client client = relay();
    ASSERT_TRUE(isAsked.wait());
    const SteadyTime asked = steadyNow();
    expireAll();
    m_witness.expectAcceptedBy(asked, m_proxy->port());
    expectRefused(client);
}

TEST_F(RelayWitnessTest, hearsNothingOfADirectConnection)
{
    routeDirectlyTo(closedPort());
    expectRefused(relay());
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(RelayWitnessTest, hearsNothingOfAFailureOfThisMachine)
{
    routeThrough(closedPort()); // which is not even tried
    std::optional<ImportRedirection<IMPORT(WSASocketW)>> failing;
    const Client client = relay([&](Socket &) {
        failing.emplace([](auto...) {
            WSASetLastError(WSAEMFILE);
            return INVALID_SOCKET;
        });
    });
    failing.reset();
    expectRefused(client);
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(RelayWitnessTest, hearsNothingOfAnAttemptThatTheStopHasEnded)
{
    const Socket mute = listeningSocket();
    routeThrough(portOf(mute.get()));
    const Client client = relay();
    m_connector->stop();
    EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

} // namespace
} // namespace ruvo::test
