// What the associations of the NAT path tell of the proxy.

#include "windows/nat/udp_nat_fixture.h"
#include "windows/socks5/recording_witness.h"

#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <mstcpip.h>

#include <atomic>

namespace ruvo::test {
namespace {

class UdpNatWitnessTest : public UdpNatRelayTest
{
protected:
    void SetUp() override
    {
        UdpNatRelayTest::SetUp();
        m_witness.whenTold = [this] { m_relay->sessions(); };
        m_relay->setProxyWitness(m_witness.function());
    }
    /// Another kind of main inbound, and a datagram for it.
    void forwardTowards(AssociationProxy::Answers answers)
    {
        useProxy(std::move(answers));
        startRelay();
        ASSERT_TRUE(forward(5000, "datagram"));
    }

    RecordingWitness m_witness;
};

TEST_F(UdpNatWitnessTest, hearsOfARefusedConnect)
{
    const std::uint16_t nobody = closedPort();
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", nobody, nobody, m_port, {}));
    ASSERT_TRUE(forward(5000, "datagram"));
    m_witness.expectFailure(nobody);
}

TEST_F(UdpNatWitnessTest, takesARefusalOnThisMachineAtOnce)
{
    // Where Windows asks twice more, the refusal is heard of a second later.
    std::atomic<int> asked = 0;
    const ImportRedirection<IMPORT(WSAIoctl)> options(
        [&](SOCKET socket, DWORD code, LPVOID in, DWORD inSize, auto... rest) -> int {
            if (code == SIO_TCP_INITIAL_RTO)
                asked += static_cast<TCP_INITIAL_RTO_PARAMETERS *>(in)->MaxSynRetransmissions
                         == TCP_INITIAL_RTO_NO_SYN_RETRANSMISSIONS;
            return options.real(socket, code, in, inSize, rest...);
        });
    const std::uint16_t nobody = closedPort();
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", nobody, nobody, m_port, {}));
    ASSERT_TRUE(forward(5000, "datagram"));
    m_witness.expectFailure(nobody);
    EXPECT_EQ(asked, 1);
}

TEST_F(UdpNatWitnessTest, hearsOfAnotherMethod)
{
    forwardTowards({.method = QByteArray::fromHex("05ff"), .reply = std::nullopt});
    m_witness.expectFailure(m_proxy->port());
}

TEST_F(UdpNatWitnessTest, hearsOfAnEndWithoutAnAnswer)
{
    const ParallelProxy silent([](ProxyConnection &connection, int) { connection.receive(3); });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", silent.port(), silent.port(), m_port, {}));
    ASSERT_TRUE(forward(5000, "datagram"));
    m_witness.expectFailure(silent.port());
}

/// The times that a thread has for an answer are over at once, and are counted.
class HurriedAnswers
{
public:
    /// Waits of five seconds, less what has passed of them.
    int ofFiveSeconds() const { return m_ofFiveSeconds; }
    /// Longer ones, of those that end at all.
    int longer() const { return m_longer; }

private:
    std::atomic<int> m_ofFiveSeconds = 0;
    std::atomic<int> m_longer = 0;
    const ImportRedirection<IMPORT(WaitForMultipleObjects)> m_hurried{
        [this, next = ImportRedirection<IMPORT(WaitForMultipleObjects)>::current()](
            DWORD count, const HANDLE *handles, BOOL all, DWORD milliseconds) {
            if (milliseconds == INFINITE || milliseconds <= 4000)
                return next(count, handles, all, milliseconds);
            // The connect has ten, and on this machine it needs none of them.
            if (const DWORD result = next(count, handles, all, 500); result != WAIT_TIMEOUT)
                return result;
            ++(milliseconds <= 5000 ? m_ofFiveSeconds : m_longer);
            return DWORD{WAIT_TIMEOUT};
        }};
};

TEST_F(UdpNatWitnessTest, hearsAfterFiveSecondsOfAProxyThatSaysNothing)
{
    const HurriedAnswers hurried;
    forwardTowards({.reply = std::nullopt, .isMute = true});
    m_witness.expectFailure(m_proxy->port());
    EXPECT_EQ(hurried.ofFiveSeconds(), 1);
    EXPECT_EQ(hurried.longer(), 0);
}

TEST_F(UdpNatWitnessTest, waitsFiveSecondsForTheReplyAfterTheMethodToo)
{
    const HurriedAnswers hurried;
    const ParallelProxy half([](ProxyConnection &connection, int) {
        connection.receive(3);
        connection.send(QByteArray::fromHex("0500"));
        connection.waitForEnd();
    });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", half.port(), half.port(), m_port, {}));
    ASSERT_TRUE(forward(5000, "datagram"));
    EXPECT_TRUE(waitUntil([this] { return !refused().empty(); }));
    EXPECT_EQ(hurried.ofFiveSeconds(), 1);
    EXPECT_EQ(hurried.longer(), 0);
}

TEST_F(UdpNatWitnessTest, hearsThatItIsAccepted)
{
    startRelay();
    establish(5000);
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpNatWitnessTest, hearsWhichInboundItWas)
{
    startRelay();
    ASSERT_TRUE(forwardTo(53, 5000, "query"));
    m_witness.expectAccepted(m_direct->port());
}

TEST_F(UdpNatWitnessTest, takesARefusedRequestForALivingProxy)
{
    forwardTowards({.reply = QByteArray::fromHex("05070001000000000000")});
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpNatWitnessTest, takesAReplyThatIsCutShortForALivingProxy)
{
    forwardTowards({.reply = QByteArray::fromHex("05000001")});
    m_witness.expectAccepted(m_proxy->port());
}

TEST_F(UdpNatWitnessTest, hearsWhenItWasAcceptedThoughTheProxyDiesOverTheRequest)
{
    Signal isAsked;
    Signal mayEnd;
    const ParallelProxy dying([&](ProxyConnection &connection, int) {
        connection.receive(3);
        connection.send(QByteArray::fromHex("0500"));
        connection.receive(10);
        isAsked.set();
        mayEnd.wait();
    });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", dying.port(), dying.port(), m_port, {}));
    ASSERT_TRUE(forward(5000, "datagram"));
    ASSERT_TRUE(isAsked.wait());
    const SteadyTime asked = steadyNow();
    mayEnd.set();
    m_witness.expectAcceptedBy(asked, dying.port());
}

TEST_F(UdpNatWitnessTest, hearsNothingOfAReceiveThatThisMachineHasNoMemoryFor)
{
    startRelay();
    const ImportRedirection<IMPORT(WSARecv)> none([&, own = GetCurrentThreadId()](auto... arguments) -> int {
        if (GetCurrentThreadId() == own)
            return none.real(arguments...);
        WSASetLastError(WSAENOBUFS);
        return SOCKET_ERROR;
    });
    ASSERT_TRUE(forward(5000, "datagram"));
    EXPECT_TRUE(waitUntil([this] { return !refused().empty(); }));
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(UdpNatWitnessTest, hearsNothingOfAFailureOfThisMachine)
{
    startRelay();
    const ImportRedirection<IMPORT(WSASocketW)> none([&, own = GetCurrentThreadId()](auto... arguments) -> SOCKET {
        if (GetCurrentThreadId() == own)
            return none.real(arguments...);
        WSASetLastError(WSAEMFILE);
        return INVALID_SOCKET;
    });
    ASSERT_TRUE(forward(5000, "datagram"));
    EXPECT_TRUE(waitUntil([this] { return !refused().empty(); }));
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

TEST_F(UdpNatWitnessTest, hearsNothingOfAnAttemptThatTheStopHasEnded)
{
    forwardTowards({.reply = std::nullopt, .isMute = true});
    EXPECT_TRUE(waitUntil([this] { return m_proxy->connections() == 1; }));
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
    EXPECT_EQ(m_witness.signs(), RecordingWitness::Signs());
}

} // namespace
} // namespace ruvo::test
