#include "windows/nat/udp_nat_fixture.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Datagram = AssociationProxy::Datagram;

TEST_F(UdpNatRelayTest, saysWhichProxyItUses)
{
    startRelay();
    EXPECT_EQ(m_log.lines(),
              QStringList{QStringLiteral("DEBUG [UDP-NAT] Initialized with proxy 127.0.0.1:%1 (proxy) / %2 (direct)")
                              .arg(m_proxy->port())
                              .arg(m_direct->port())});
}

TEST_F(UdpNatRelayTest, carriesADatagramAndItsAnswer)
{
    startRelay();
    const Datagram datagram = establish(5000, "question");
    m_proxy->answer(datagram, QByteArray::fromHex("0000000101020304aaaa") + "answer");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->srcIp, server) << "as the client sees it, whoever answered";
    EXPECT_EQ(packet->srcPort, 443);
    EXPECT_EQ(packet->dstIp, client);
    EXPECT_EQ(packet->dstPort, 5000);
    EXPECT_EQ(packet->payload, "answer");
}

TEST_F(UdpNatRelayTest, asksTheRealDestinationAndAnswersAsTheRequestedOne)
{
    startRelay();
    const QByteArray query = "query";
    // DNS for the tunnel's own address goes to a public resolver, through the direct inbound.
    ASSERT_TRUE(m_relay->forward(client, 5000, client + 1, 53, 0x08080808, 53,
                                 reinterpret_cast<const std::uint8_t *>(query.constData()), 5));
    const Datagram datagram = m_direct->receive();
    EXPECT_EQ(datagram.bytes, QByteArray::fromHex("00000001080808080035") + "query");
    EXPECT_EQ(m_proxy->connections(), 0);
    m_direct->answer(datagram, QByteArray::fromHex("00000001080808080035") + "address");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->srcIp, client + 1);
    EXPECT_EQ(packet->srcPort, 53);
    EXPECT_EQ(packet->payload, "address");
}

TEST_F(UdpNatRelayTest, sharesAnAssociationWithinAFlow)
{
    startRelay();
    const Datagram first = establish(5000);
    const Datagram second = establish(5000, "second");
    EXPECT_EQ(first.from.sin_port, second.from.sin_port);
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_EQ(m_relay->sessions(), 1u);
}

TEST_F(UdpNatRelayTest, opensAnotherAssociationForAnotherFlow)
{
    startRelay();
    const Datagram first = establish(5000);
    const Datagram other = establish(5001);
    EXPECT_NE(first.from.sin_port, other.from.sin_port);
    ASSERT_TRUE(forwardTo(444, 5000, "x"));
    EXPECT_EQ(m_proxy->receive().bytes, QByteArray::fromHex("000000015db8d82201bc") + "x");
    EXPECT_EQ(m_proxy->connections(), 3);
    EXPECT_EQ(m_relay->sessions(), 3u);
    m_proxy->answer(other, header + "to the other");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->dstPort, 5001);
}

TEST_F(UdpNatRelayTest, keepsTheOrderOfWhatWaitsForTheAssociation)
{
    startRelay();
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(forward(5000, QByteArray::number(i)));
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(m_proxy->receive().bytes, header + QByteArray::number(i));
    EXPECT_EQ(m_proxy->connections(), 1);
}

TEST_F(UdpNatRelayTest, carriesTheLargestAndTheEmptyDatagram)
{
    startRelay();
    establish(5000, pattern(1472));
    establish(5000, QByteArray());
    const Datagram large = establish(5000, pattern(60'000));
    m_proxy->answer(large, header + pattern(60'000, 3));
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_TRUE(packet->payload == pattern(60'000, 3));
}

TEST_F(UdpNatRelayTest, takesAnswersOfEachAddressType)
{
    startRelay();
    const Datagram datagram = establish(5000);
    const QByteArray headers[] = {
        header,
        QByteArray::fromHex("000000030b") + "example.com" + QByteArray::fromHex("01bb"),
        QByteArray::fromHex("00000004") + QByteArray(16, 'a') + QByteArray::fromHex("01bb"),
        QByteArray::fromHex("ffff0701") + QByteArray(6, 'a'), // reserved and fragment bytes do not matter
        QByteArray::fromHex("0000000300") + QByteArray(5, 'a'),
    };
    const char *const payloads[] = {"ipv4", "name", "ipv6", "odd", "aaa"}; // the last header has 7 bytes
    for (std::size_t i = 0; i < std::size(headers); ++i) {
        m_proxy->answer(datagram, i == 4 ? headers[i] : headers[i] + payloads[i]);
        const std::optional<Packet> packet = takePacket();
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->payload, payloads[i]);
    }
}

TEST_F(UdpNatRelayTest, saysThatAnAnswerHasNoHeaderAndGoesOn)
{
    startRelay();
    const Datagram datagram = establish(5000);
    const QByteArray broken[] = {
        QByteArray::fromHex("00"),
        header.left(9),
        QByteArray::fromHex("000000030b") + "example.com" + QByteArray::fromHex("01"),
        QByteArray::fromHex("00000004") + QByteArray(17, 'a'),
        QByteArray::fromHex("00000002") + QByteArray(100, 'a'),
    };
    for (const QByteArray &bytes : broken)
        m_proxy->answer(datagram, bytes);
    m_proxy->answer(datagram, header + "whole");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "whole");
    EXPECT_EQ(m_log.linesWith("WARNING [UDP-NAT] Failed to parse SOCKS5 UDP header").size(), 5);
    EXPECT_EQ(packetCount(), 0u);
}

TEST_F(UdpNatRelayTest, writesNothingForAnAnswerWithoutPayload)
{
    startRelay();
    const Datagram datagram = establish(5000);
    m_proxy->answer(datagram, header);
    m_proxy->answer(datagram, header + "x");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "x") << "the next answer is received";
    EXPECT_EQ(packetCount(), 0u);
    EXPECT_FALSE(m_log.contains("Failed"));
}

TEST_F(UdpNatRelayTest, sendsToTheProxysOwnAddressWhenTheReplyNamesNone)
{
    useProxy({.reply = std::nullopt, .hidesAddress = true});
    startRelay();
    establish(5000);
}

TEST_F(UdpNatRelayTest, endsFlowsThatAreIdleFor61Seconds)
{
    startRelay();
    establish(5000);
    pass(30);
    const Datagram lively = establish(5001);
    pass(30);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 2u);
    m_proxy->answer(lively, header + "x"); // counts as activity, like a datagram that is sent
    ASSERT_TRUE(takePacket());
    pass(1);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 1u);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; })) << "a receive on each of its sockets";
    pass(59);
    establish(5001, "again");
    EXPECT_EQ(m_proxy->connections(), 2);
    pass(60);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 1u);
    pass(1);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 0u);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    establish(5000, "back");
}

TEST_F(UdpNatRelayTest, opensANewAssociationAfterTheProxyEndedTheOldOne)
{
    startRelay();
    establish(5000);
    m_proxy->endAssociations();
    Datagram after;
    // That its end has been seen shows in what the next datagram does.
    EXPECT_TRUE(waitUntil([&] {
        after = establish(5000, "again");
        return m_proxy->connections() == 2;
    }));
    EXPECT_EQ(m_relay->sessions(), 1u) << "in the old one's place";
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    m_proxy->answer(after, header + "new");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "new");
}

TEST_F(UdpNatRelayTest, delaysNobodyElseWhileAProxyDoesNotAnswer)
{
    useProxy({.reply = std::nullopt, .isMute = true});
    startRelay();
    for (std::uint16_t port = 1; port <= 8; ++port)
        ASSERT_TRUE(forward(port, "in vain"));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(forwardTo(53, 5000, "query"));
    EXPECT_EQ(m_direct->receive().bytes, QByteArray::fromHex("000000015db8d8220035") + "query");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "a handshake waits for 5 s";
    for (int i = 0; i < 2000; ++i)
        ASSERT_TRUE(forward(static_cast<std::uint16_t>(10000 + i), "in vain"));
    ASSERT_TRUE(forwardTo(53, 5000, "another"));
    EXPECT_EQ(m_direct->receive().bytes, QByteArray::fromHex("000000015db8d8220035") + "another");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    const auto stop = std::chrono::steady_clock::now();
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
    EXPECT_LT(std::chrono::steady_clock::now() - stop, 4s) << "the stop does not wait for it either";
}

// The whole number of associations with RUVOD_WHOLE=1.
TEST_F(UdpNatRelayTest, keepsABoundedNumberOfAssociations)
{
    static_assert(UdpNatRelay::maxSessions == 2048);
    const bool isWhole = qEnvironmentVariableIntValue("RUVOD_WHOLE") != 0;
    const std::uint16_t limit = isWhole ? UdpNatRelay::maxSessions : 50;
    if (!isWhole)
        makeRelay(limit);
    startRelay();
    for (std::uint16_t port = 1; port <= limit + 10; ++port)
        establish(port);
    printf("%d associations opened, %zu kept\n", m_proxy->connections(), m_relay->sessions());
    EXPECT_EQ(m_relay->sessions(), std::size_t{limit});
    EXPECT_TRUE(waitUntil([&] { return m_port.inFlight() == 2 * limit; })) << m_port.inFlight();
    const int connections = m_proxy->connections();
    establish(11, "still known");
    EXPECT_EQ(m_proxy->connections(), connections);
    establish(10, "the longest idle ones have gone");
    EXPECT_EQ(m_proxy->connections(), connections + 1);
    EXPECT_EQ(m_relay->sessions(), std::size_t{limit});
}

TEST_F(UdpNatRelayTest, refusesDatagramsBeforeItsStartAndAfterItsEnd)
{
    EXPECT_FALSE(forward(5000, "x"));
    m_relay->shutdown();
    EXPECT_TRUE(m_log.lines().isEmpty());
    startRelay();
    establish(5000);
    m_relay->shutdown();
    EXPECT_FALSE(forward(5000, "x"));
    EXPECT_EQ(m_relay->sessions(), 0u);
    m_relay->shutdown();
    EXPECT_EQ(m_log.linesWith("DEBUG [UDP-NAT] Shutdown complete").size(), 1) << "a second end does nothing";
}

TEST_F(UdpNatRelayTest, dropsACompletionThatComesAfterItsEnd)
{
    startRelay();
    const Datagram datagram = establish(5000);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    stopWorkers();
    m_proxy->answer(datagram, header + "late");
    Sleep(100); // it completes, and nobody takes the completion
    m_relay->shutdown();
    EXPECT_EQ(m_port.inFlight(), 2);
    EXPECT_TRUE(m_port.drain(10s));
    EXPECT_EQ(packetCount(), 0u);
}

} // namespace
} // namespace ruvo::test
