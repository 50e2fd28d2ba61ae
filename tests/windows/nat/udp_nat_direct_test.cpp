// Flows that are not the proxy's: which ones is asked, and they leave directly or not at all.

#include "windows/io/socket_type.h"
#include "windows/nat/udp_nat_fixture.h"
#include "windows/support/import_redirection.h"

#include <optional>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class UdpNatDirectTest : public UdpNatRelayTest
{
protected:
    static constexpr std::uint32_t physical = 7;

    void SetUp() override
    {
        UdpNatRelayTest::SetUp();
        const sockaddr_in address = loopbackAddress(0);
        ASSERT_EQ(bind(m_peer.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        const DWORD timeout = 20000;
        setsockopt(m_peer.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
        m_relay->setQuestions({
            .wayFor =
                [this](const FlowKey &) {
                    WaitForSingleObject(m_gate.get(), 20000);
                    const UdpWay way = m_way;
                    m_asker = GetCurrentThreadId();
                    ++m_asked;
                    return way;
                },
            .physicalInterface = [this] { return m_physical.load(); },
        });
        m_options.emplace([this](SOCKET socket, int level, int option, const char *value, int size) {
            if (level != IPPROTO_IP || option != IP_UNICAST_IF)
                return m_options->real(socket, level, option, value, size);
            const std::lock_guard lock(m_mutex);
            m_steps.push_back("interface " + QByteArray::number(ntohl(*reinterpret_cast<const DWORD *>(value))));
            WSASetLastError(m_optionError);
            return m_optionError == NO_ERROR ? 0 : SOCKET_ERROR;
        });
        m_connects.emplace([this](SOCKET socket, const sockaddr *peer, int size) {
            if (socketType(socket) == SOCK_DGRAM) {
                const std::lock_guard lock(m_mutex);
                m_steps.push_back("connect");
                m_socket = socket;
            }
            return m_connects->real(socket, peer, size);
        });
    }
    void TearDown() override
    {
        SetEvent(m_gate.get());
        UdpNatRelayTest::TearDown();
    }

    bool forwardToPeer(std::uint16_t clientPort, const QByteArray &payload)
    {
        const Endpoint peer{INADDR_LOOPBACK, portOf(m_peer.get())};
        return m_relay->forward(
            {{client, clientPort}, peer}, peer,
            {reinterpret_cast<const std::uint8_t *>(payload.constData()), static_cast<std::size_t>(payload.size())});
    }
    /// The next datagram that has come to the peer, waited for.
    AssociationProxy::Datagram receive()
    {
        AssociationProxy::Datagram datagram;
        char block[0x10000];
        int size = sizeof(datagram.from);
        const int received =
            recvfrom(m_peer.get(), block, sizeof(block), 0, reinterpret_cast<sockaddr *>(&datagram.from), &size);
        EXPECT_GE(received, 0) << "nothing has come";
        datagram.bytes = QByteArray(block, std::max(received, 0));
        return datagram;
    }
    void answer(const AssociationProxy::Datagram &to, const QByteArray &bytes)
    {
        sendto(m_peer.get(), bytes.constData(), static_cast<int>(bytes.size()), 0,
               reinterpret_cast<const sockaddr *>(&to.from), sizeof(to.from));
    }
    /// The flow has gone nowhere, and the next one, which is the proxy's, goes its way.
    void expectDropped()
    {
        m_way = UdpWay::Associate;
        establish(6000, "another");
        EXPECT_EQ(m_proxy->connections(), 1);
        EXPECT_EQ(m_relay->sessions(), 1u);
        EXPECT_TRUE(refused().empty());
        u_long waiting = 0;
        EXPECT_EQ(ioctlsocket(m_peer.get(), static_cast<long>(FIONREAD), &waiting), 0);
        EXPECT_EQ(waiting, 0u);
    }
    QByteArrayList steps()
    {
        const std::lock_guard lock(m_mutex);
        return m_steps;
    }

    const Socket m_peer{WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED)};
    const KernelHandle m_gate{CreateEventW(nullptr, TRUE, TRUE, nullptr)};
    std::atomic<UdpWay> m_way = UdpWay::Direct;
    std::atomic<std::uint32_t> m_physical = physical;
    std::atomic<int> m_asked = 0;
    std::atomic<DWORD> m_asker = 0;
    std::atomic<int> m_optionError = NO_ERROR;
    std::atomic<SOCKET> m_socket = INVALID_SOCKET;

private:
    std::mutex m_mutex;
    QByteArrayList m_steps;
    std::optional<ImportRedirection<IMPORT(setsockopt)>> m_options;
    std::optional<ImportRedirection<IMPORT(connect)>> m_connects;
};

TEST_F(UdpNatDirectTest, goesPastTheProxyThroughThePhysicalInterface)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    const AssociationProxy::Datagram first = receive();
    EXPECT_EQ(first.bytes, "first") << "and no header";
    EXPECT_EQ(steps(), (QByteArrayList{"interface 7", "connect"})) << "the way is chosen when it is connected";
    ASSERT_TRUE(forwardToPeer(5000, pattern(60'000)));
    const AssociationProxy::Datagram second = receive();
    EXPECT_TRUE(second.bytes == pattern(60'000));
    EXPECT_EQ(second.from.sin_port, first.from.sin_port);
    answer(second, header + "answer");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->srcIp, std::uint32_t{INADDR_LOOPBACK});
    EXPECT_EQ(packet->srcPort, portOf(m_peer.get()));
    EXPECT_EQ(packet->dstIp, client);
    EXPECT_EQ(packet->dstPort, 5000);
    EXPECT_EQ(packet->payload, header + "answer") << "whatever it looks like";
    EXPECT_EQ(m_proxy->connections() + m_direct->connections(), 0);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; })) << "there is one socket";
    EXPECT_EQ(m_asked, 1);
    EXPECT_TRUE(m_log.linesWith("WARNING").isEmpty());
}

TEST_F(UdpNatDirectTest, isAskedForOnAnOpenersThread)
{
    startRelay();
    ResetEvent(m_gate.get());
    ASSERT_TRUE(forwardToPeer(5000, "the reader goes on"));
    SetEvent(m_gate.get());
    EXPECT_EQ(receive().bytes, "the reader goes on");
    EXPECT_NE(m_asker, GetCurrentThreadId());
}

TEST_F(UdpNatDirectTest, isNeverAskedForOfTheTunnelsOwnResolver)
{
    startRelay();
    const QByteArray query = "query";
    ASSERT_TRUE(m_relay->forward(client, 5000, client + 1, 53, 0x08080808, 53,
                                 reinterpret_cast<const std::uint8_t *>(query.constData()), 5));
    EXPECT_EQ(m_direct->receive().bytes, QByteArray::fromHex("00000001080808080035") + "query");
    EXPECT_EQ(m_asked, 0);
    ASSERT_TRUE(m_relay->forward(client, 5000, client + 1, 54, client + 1, 54,
                                 reinterpret_cast<const std::uint8_t *>(query.constData()), 5));
    EXPECT_TRUE(waitUntil([this] { return m_asked == 1; })) << "of its other ports it is";
}

TEST_F(UdpNatDirectTest, keepsTheOrderOfWhatComesWhileItIsAsked)
{
    startRelay();
    m_way = UdpWay::Associate;
    ResetEvent(m_gate.get());
    m_proxy->closeGate();
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(forward(5000, QByteArray::number(i)));
    SetEvent(m_gate.get());
    EXPECT_TRUE(waitUntil([this] { return m_proxy->connections() == 1; }));
    for (int i = 20; i < 40; ++i)
        ASSERT_TRUE(forward(5000, QByteArray::number(i)));
    m_proxy->openGate();
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(m_proxy->receive().bytes, header + QByteArray::number(i));
    EXPECT_EQ(m_asked, 1) << "not again while the proxy answers";
    EXPECT_EQ(m_proxy->connections(), 1);
}

TEST_F(UdpNatDirectTest, isNotHeldUpByAMuteProxy)
{
    useProxy({.reply = std::nullopt, .isMute = true});
    startRelay();
    m_way = UdpWay::Associate;
    for (std::uint16_t port = 1; port <= 20; ++port)
        ASSERT_TRUE(forward(port, "in vain"));
    EXPECT_TRUE(waitUntil([this] { return m_asked == 20; }));
    m_way = UdpWay::Direct;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    EXPECT_EQ(receive().bytes, "first");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "a handshake waits for 5 s";
}

TEST_F(UdpNatDirectTest, dropsWhatGoesRound)
{
    startRelay();
    m_way = UdpWay::Drop;
    ASSERT_TRUE(forwardToPeer(5000, "looping"));
    EXPECT_TRUE(waitUntil([this] { return m_asked == 1; }));
    expectDropped();
    EXPECT_TRUE(m_log.linesWith("WARNING").isEmpty());
}

// Each look-up reads whole tables, and what goes round goes fast.
TEST_F(UdpNatDirectTest, remembersForASecondWhatIsDropped)
{
    startRelay();
    m_way = UdpWay::Drop;
    ASSERT_TRUE(forwardToPeer(5000, "looping"));
    EXPECT_TRUE(waitUntil([this] { return m_asked == 1; }));
    expectDropped();
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(forwardToPeer(5000, "looping"));
    establish(6001, "another");
    EXPECT_LE(m_asked, 4) << "once for each flow, and once more if the first answer was slow to be kept";
    m_way = UdpWay::Direct;
    pass(1);
    ASSERT_TRUE(forwardToPeer(5000, "asked again"));
    EXPECT_EQ(receive().bytes, "asked again");
}

TEST_F(UdpNatDirectTest, dropsWhatCannotBeBoundToTheInterface)
{
    startRelay();
    m_optionError = WSAEADDRNOTAVAIL;
    ASSERT_TRUE(forwardToPeer(5000, "would come back"));
    expectLine("WARNING [UDP-NAT] Failed to bind to physical interface 7 - Error: 10049");
    expectDropped();
    EXPECT_EQ(m_log.linesWith("WARNING").size(), 1);
}

TEST_F(UdpNatDirectTest, dropsWhatHasNoInterface)
{
    startRelay();
    m_physical = 0;
    ASSERT_TRUE(forwardToPeer(5000, "would come back"));
    expectLine(
        QStringLiteral("WARNING [UDP-NAT] No physical interface for the direct flow to 127.0.0.1:%1, dropping it")
            .arg(portOf(m_peer.get())));
    expectDropped();
    EXPECT_EQ(m_log.linesWith("WARNING").size(), 1);
}

TEST_F(UdpNatDirectTest, losesADatagramThatCannotBeSentAndOpensAnew)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    EXPECT_EQ(receive().bytes, "first");
    {
        const ImportRedirection<IMPORT(WSASend)> none([](auto...) {
            WSASetLastError(WSAENETUNREACH);
            return SOCKET_ERROR;
        });
        EXPECT_TRUE(forwardToPeer(5000, "lost")) << "the fallback would send it through the tunnel again";
    }
    expectLine("WARNING [UDP-NAT] Failed to send directly: 10051");
    m_physical = 9; // the machine has another address and another interface now
    ASSERT_TRUE(forwardToPeer(5000, "second"));
    EXPECT_EQ(receive().bytes, "second");
    EXPECT_EQ(steps().count("interface 9"), 1);
    EXPECT_EQ(m_asked, 2);
    EXPECT_TRUE(refused().empty());
}

// Nothing of the proxy's protocol holds here: an empty datagram is one.
TEST_F(UdpNatDirectTest, bringsEmptyAnswersAndGoesOn)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, ""));
    const AssociationProxy::Datagram datagram = receive();
    EXPECT_EQ(datagram.bytes, "");
    answer(datagram, "");
    answer(datagram, "x");
    for (const char *payload : {"", "x"}) {
        const std::optional<Packet> packet = takePacket();
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->payload, payload);
    }
}

TEST_F(UdpNatDirectTest, takesAnswersOfItsDestinationOnly)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    const AssociationProxy::Datagram datagram = receive();
    const AssociationProxy stranger;
    stranger.answer(datagram, "forged");
    answer(datagram, "true");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "true");
    EXPECT_EQ(packetCount(), 0u);
}

TEST_F(UdpNatDirectTest, endsWhenItIsIdleFor61Seconds)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    receive();
    pass(60);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 1u);
    pass(1);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 0u);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
}

// No end of a control connection tells that it hears nothing any more.
TEST_F(UdpNatDirectTest, isOpenedAnewWhenItsReceiveHasFailed)
{
    startRelay();
    ASSERT_TRUE(forwardToPeer(5000, "first"));
    receive();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; }));
    // It counts from before the call is made: the first attempt may come too early.
    EXPECT_TRUE(waitUntil([this] {
        CancelIoEx(reinterpret_cast<HANDLE>(m_socket.load()), nullptr);
        return m_port.inFlight() == 0;
    }));
    ASSERT_TRUE(forwardToPeer(5000, "second"));
    answer(receive(), "answer");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "answer");
    EXPECT_EQ(m_asked, 2);
    EXPECT_EQ(m_relay->sessions(), 1u);
}

} // namespace
} // namespace ruvo::test
