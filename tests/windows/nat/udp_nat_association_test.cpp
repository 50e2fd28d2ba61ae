// What an association takes for an answer, and how it ends.

#include "windows/io/socket_type.h"
#include "windows/nat/udp_nat_fixture.h"

#include "windows/support/import_redirection.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Datagram = AssociationProxy::Datagram;

class UdpNatAssociationTest : public UdpNatRelayTest
{
protected:
    /// The next packet for the application, and no other.
    void expectPacket(const QByteArray &payload)
    {
        const std::optional<Packet> packet = takePacket();
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->payload, payload);
        EXPECT_EQ(packetCount(), 0u);
    }
};

// Another program of this machine could answer an application's DNS query otherwise.
TEST_F(UdpNatAssociationTest, takesAnswersFromTheRelayOnly)
{
    startRelay();
    const Datagram datagram = establish(5000);
    const AssociationProxy stranger;
    stranger.answer(datagram, header + "forged");
    m_proxy->answer(datagram, header + "true");
    expectPacket("true");
}

TEST_F(UdpNatAssociationTest, isNotSilencedByAStranger)
{
    startRelay();
    const Datagram datagram = establish(5000);
    const AssociationProxy stranger;
    stranger.answer(datagram, "");
    m_proxy->answer(datagram, header + "true");
    expectPacket("true");
}

TEST_F(UdpNatAssociationTest, takesNothingThatCameBeforeItsSocketWasConnected)
{
    startRelay();
    const AssociationProxy stranger;
    const ImportRedirection<IMPORT(connect)> forging([&](SOCKET socket, const sockaddr *peer, int size) {
        if (socketType(socket) == SOCK_DGRAM) {
            stranger.answer({{}, loopbackAddress(portOf(socket))}, header + "forged");
            stranger.answer({{}, loopbackAddress(portOf(socket))}, "");
        }
        return forging.real(socket, peer, size);
    });
    m_proxy->answer(establish(5000), header + "true");
    expectPacket("true");
}

// A port in TIME_WAIT for each flow of the last minutes would leave none for new ones.
TEST_F(UdpNatAssociationTest, resetsTheControlConnectionOfAFlowThatEnds)
{
    startRelay();
    establish(5000);
    pass(61);
    m_relay->expireIdle();
    EXPECT_EQ(m_proxy->endOfFirst(), Ending::Reset);
}

TEST_F(UdpNatAssociationTest, resetsTheControlConnectionsAtTheEnd)
{
    startRelay();
    establish(5000);
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
    EXPECT_EQ(m_proxy->endOfFirst(), Ending::Reset);
}

TEST_F(UdpNatAssociationTest, dropsALateAnswerOfAnAssociationThatWasReplaced)
{
    std::atomic<LPWSAOVERLAPPED> receive = nullptr;
    const ImportRedirection<IMPORT(WSARecvFrom)> watched(
        [&](SOCKET socket, LPWSABUF room, DWORD count, LPDWORD received, LPDWORD flags, sockaddr *from,
            LPINT fromSize, LPWSAOVERLAPPED overlapped, auto routine) {
            receive = overlapped;
            return watched.real(socket, room, count, received, flags, from, fromSize, overlapped, routine);
        });
    startRelay();
    const Datagram old = establish(5000);
    ASSERT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    m_proxy->endAssociations();
    ASSERT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; })) << "that it ended has been seen";
    stopWorkers();
    m_proxy->answer(old, header + "late");
    LPWSAOVERLAPPED const completing = receive;
    ASSERT_TRUE(waitUntil([=] { return HasOverlappedIoCompleted(completing); })) << "and nobody takes the completion";
    ASSERT_TRUE(forward(5000, "again"));
    const Datagram fresh = m_proxy->receive();
    ASSERT_EQ(fresh.bytes, header + "again");
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 3; })) << "the old receive, and two of the new one";
    startWorkers();
    m_proxy->answer(fresh, header + "new");
    expectPacket("new");
}

TEST_F(UdpNatAssociationTest, doesNotMindWhatTheProxySaysOnTheControlConnection)
{
    std::atomic<int> watches = 0;
    const ImportRedirection<IMPORT(WSARecv)> counted([&](SOCKET socket, LPWSABUF room, DWORD count, LPDWORD received,
                                                         LPDWORD flags, LPWSAOVERLAPPED overlapped, auto routine) {
        watches += !overlapped->hEvent; // the handshake's have one
        return counted.real(socket, room, count, received, flags, overlapped, routine);
    });
    startRelay();
    establish(5000);
    EXPECT_TRUE(waitUntil([&] { return watches == 1; }));
    m_proxy->babble();
    EXPECT_TRUE(waitUntil([&] { return watches == 2; })) << "it has been heard";
    establish(5000, "still there");
    EXPECT_EQ(m_proxy->connections(), 1);
}

} // namespace
} // namespace ruvo::test
