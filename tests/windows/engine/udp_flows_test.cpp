#include "windows/engine/udp_flows_fixture.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Datagram = AssociationServer::Datagram;

TEST_F(UdpFlowsTest, holdsTheFirstDatagramsUntilTheAssociationStandsAndSendsThemInOrder)
{
    m_proxy->closeGate();
    for (int i = 0; i < 5; ++i)
        send(5000, QByteArray::number(i));
    const UdpFlowPtr flow = onlyFlow();
    ASSERT_TRUE(flow);
    EXPECT_TRUE(waitUntil([&] { return flow->state() == 2; })) << "the proxy's method is awaited";
    EXPECT_EQ(flow->upstreamPort(), m_proxy->port());
    m_proxy->openGate();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(m_proxy->receive().bytes, header + QByteArray::number(i));
    EXPECT_EQ(flow->state(), UdpFlow::readyState);
    establish(5000, "sent at once");
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, holdsTheNewest64Datagrams)
{
    m_proxy->closeGate();
    for (int i = 0; i < 70; ++i)
        send(5000, QByteArray::number(i));
    m_proxy->openGate();
    for (int i = 6; i < 70; ++i)
        EXPECT_EQ(m_proxy->receive().bytes, header + QByteArray::number(i));
}

TEST_F(UdpFlowsTest, carriesAnAnswerBackAsFromWhereTheApplicationSent)
{
    const Datagram datagram = establish(5000, "question");
    m_proxy->answer(datagram, QByteArray::fromHex("0000000101020304aaaa") + "answer");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->from, (Endpoint{server, 443})) << "whoever answered";
    EXPECT_EQ(packet->to, (Endpoint{tunnel, 5000}));
    EXPECT_EQ(packet->payload, "answer");
}

TEST_F(UdpFlowsTest, keepsFlowsApart)
{
    const Datagram first = establish(5000);
    const Datagram other = establish(5001);
    EXPECT_NE(first.from.sin_port, other.from.sin_port) << "each has an association of its own";
    send(5000, "x", {server, 444});
    EXPECT_EQ(m_proxy->receive().bytes, QByteArray::fromHex("000000015db8d82201bc") + "x");
    EXPECT_EQ(m_proxy->connections(), 3);
    EXPECT_EQ(m_flows->size(), 3u);
    m_proxy->answer(other, header + "to the other");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->to, (Endpoint{tunnel, 5001}));
}

TEST_F(UdpFlowsTest, asksThePublicResolverAndAnswersAsTheTunnelsOwn)
{
    send(5000, "query", {tunnel + 1, 53});
    const Datagram datagram = m_dns->receive();
    EXPECT_EQ(datagram.bytes, resolverHeader + "query");
    EXPECT_EQ(m_proxy->connections(), 0);
    m_dns->answer(datagram, resolverHeader + "address");
    std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->from, (Endpoint{tunnel + 1, 53}));

    // The same program may ask both.
    send(5000, "query", {0x08080808, 53});
    m_dns->answer(m_dns->receive(), resolverHeader + "address");
    packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->from, (Endpoint{0x08080808, 53}));
    EXPECT_EQ(m_flows->size(), 2u);
}

TEST_F(UdpFlowsTest, takesWhatTheNatRelayCouldNotCarryAsIfItsPacketHadCome)
{
    const QByteArray payload = "refused";
    const std::span bytes(reinterpret_cast<const std::uint8_t *>(payload.constData()), 7);
    m_flows->forwardFallback({{tunnel, 5000}, {server, 443}}, bytes);
    EXPECT_EQ(m_proxy->receive().bytes, header + payload);
    establish(5000, "the same flow");
    EXPECT_EQ(m_flows->size(), 1u);

    m_flows->forwardFallback({{tunnel, 5000}, {tunnel + 1, 53}}, bytes);
    const Datagram query = m_dns->receive();
    EXPECT_EQ(query.bytes, resolverHeader + payload);
    m_dns->answer(query, resolverHeader + "address");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->from, (Endpoint{tunnel + 1, 53}));
    EXPECT_EQ(packet->to, (Endpoint{tunnel, 5000}));
    send(5000, "again", {tunnel + 1, 53});
    EXPECT_EQ(m_dns->receive().bytes, resolverHeader + "again");
    EXPECT_EQ(m_flows->size(), 2u);
}

/// An answer for example.com, with 93.184.216.34 and 2606:2800:220:1:248:1893:25c8:1946.
const QByteArray dnsAnswer = QByteArray::fromHex("1234818000010002000000000765"
                                                 "78616d706c6503636f6d0000010001"
                                                 "c00c000100010000012c00045db8d822"
                                                 "c00c001c00010000000100102606280002200001024818932"
                                                 "5c81946");

void expectBothLearnt(const std::vector<DnsAnswer> &learnt)
{
    constexpr Ipv6Bytes ipv6 = {0x26, 0x06, 0x28, 0x00, 0x02, 0x20, 0x00, 0x01,
                                0x02, 0x48, 0x18, 0x93, 0x25, 0xc8, 0x19, 0x46};
    ASSERT_EQ(learnt.size(), 2u);
    EXPECT_EQ(learnt[0], (DnsAnswer{.name = "example.com", .address = 0x5DB8D822u, .timeToLive = 300}));
    EXPECT_EQ(learnt[1], (DnsAnswer{.name = "example.com", .address = ipv6, .timeToLive = 60}));
}

TEST_F(UdpFlowsTest, learnsNamesFromDnsAnswers)
{
    send(5000, "query", {tunnel + 1, 53});
    m_dns->answer(m_dns->receive(), resolverHeader + dnsAnswer);
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, dnsAnswer);
    expectBothLearnt(learnt()); // before the application hears of it
}

TEST_F(UdpFlowsTest, learnsOnlyFromWhatComesFromPort53)
{
    const Datagram datagram = establish(5000);
    m_proxy->answer(datagram, header + dnsAnswer);
    ASSERT_TRUE(takePacket());
    EXPECT_TRUE(learnt().empty());
    m_proxy->answer(datagram, resolverHeader + dnsAnswer.left(12));
    ASSERT_TRUE(takePacket());
    EXPECT_TRUE(learnt().empty());
    m_proxy->answer(datagram, resolverHeader + dnsAnswer); // whatever port the flow goes to
    ASSERT_TRUE(takePacket());
    expectBothLearnt(learnt());
}

TEST_F(UdpFlowsTest, carriesIpv6OutwardsAndLearnsFromItsAnswers)
{
    const QByteArray ipv6Header = QByteArray::fromHex("0000000420010db80000000000000000000000020035");
    sendIpv6(5000, "held", 53);
    const Datagram datagram = m_dns->receive();
    EXPECT_EQ(datagram.bytes, ipv6Header + "held");
    sendIpv6(5000, "at once", 53);
    EXPECT_EQ(m_dns->receive().bytes, ipv6Header + "at once");
    EXPECT_EQ(m_flows->size(), 1u);

    pass(60s);
    m_dns->answer(datagram, ipv6Header + dnsAnswer);
    EXPECT_TRUE(waitUntil([this] { return learnt().size() == 2; }));
    expectBothLearnt(learnt());
    pass(60s);
    m_flows->sweepIdle();
    EXPECT_EQ(m_flows->size(), 1u) << "an answer is activity";
    EXPECT_EQ(packetCount(), 0u) << "there is no way to inject it";
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, takesAnswersOfEachAddressTypeAndPassesOverWhatIsNone)
{
    const Datagram datagram = establish(5000);
    for (const QByteArray &broken : {QByteArray(), QByteArray::fromHex("00"), header.left(9), header,
                                     QByteArray::fromHex("000000030b") + "example.com" + QByteArray::fromHex("01"),
                                     QByteArray::fromHex("00000004") + QByteArray(17, 'a'),
                                     QByteArray::fromHex("00000002") + QByteArray(9, 'a')})
        m_proxy->answer(datagram, broken);
    m_proxy->answer(datagram, header + "ipv4");
    m_proxy->answer(datagram,
                    QByteArray::fromHex("000000030b") + "example.com" + QByteArray::fromHex("01bb") + "name");
    m_proxy->answer(datagram, QByteArray::fromHex("00000004") + QByteArray(18, 'a') + "ipv6");
    for (const char *const expected : {"ipv4", "name", "ipv6"}) {
        const std::optional<Packet> packet = takePacket();
        ASSERT_TRUE(packet);
        EXPECT_EQ(packet->payload, expected);
    }
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, carriesTheLargestAndTheEmptyDatagram)
{
    establish(5000, pattern(1472));
    establish(5000, QByteArray());
    const Datagram large = establish(5000, pattern(60'000));
    m_proxy->answer(large, header + pattern(60'000, 3));
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_TRUE(packet->payload == pattern(60'000, 3));
}

TEST_F(UdpFlowsTest, takesAnswersFromTheRelayOnly)
{
    const Datagram datagram = establish(5000);
    const AssociationServer stranger;
    stranger.answer(datagram, header + "forged");
    m_proxy->answer(datagram, header + "true");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "true");
    EXPECT_EQ(packetCount(), 0u);
}

TEST_F(UdpFlowsTest, sendsToTheProxysOwnAddressWhenTheReplyNamesNone)
{
    useProxy({.reply = std::nullopt, .hidesAddress = true});
    establish(5000);
}

TEST_F(UdpFlowsTest, dropsADatagramThatIsCutShortWithinItsHeader)
{
    const QByteArray packet = QByteArray::fromHex("4500001600004000401100000a0607015db8d8221388");
    m_flows->handleUdpPacket(parsePacket(reinterpret_cast<const std::uint8_t *>(packet.constData()), 22));
    EXPECT_EQ(m_flows->size(), 0u);
}

} // namespace
} // namespace ruvo::test
