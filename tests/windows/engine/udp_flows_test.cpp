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

TEST_F(UdpFlowsTest, endsFlowsThatAreIdleFor61Seconds)
{
    establish(5000);
    pass(30s);
    const Datagram lively = establish(5001);
    pass(30s);
    m_flows->sweepIdle();
    EXPECT_EQ(m_flows->size(), 2u);
    m_proxy->answer(lively, header + "x"); // counts as activity, like a datagram that is sent
    ASSERT_TRUE(takePacket());
    pass(1s);
    m_flows->sweepIdle();
    EXPECT_EQ(m_flows->size(), 1u);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; })) << "a receive on each of its sockets";
    pass(60s);
    m_flows->sweepIdle();
    expectGone();
    establish(5000, "back");
    EXPECT_EQ(m_proxy->connections(), 3);
}

TEST_F(UdpFlowsTest, opensANewAssociationAfterTheProxyEndedTheOldOne)
{
    establish(5000);
    m_proxy->endAssociations();
    expectGone();
    m_proxy->answer(establish(5000, "again"), header + "new");
    const std::optional<Packet> packet = takePacket();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->payload, "new");
    EXPECT_EQ(m_proxy->connections(), 2);
}

TEST_F(UdpFlowsTest, doesNotMindWhatTheProxySaysOnTheControlConnection)
{
    establish(5000);
    m_proxy->babble();
    establish(5000, "still there");
    m_proxy->babble();
    establish(5000, "still there");
    EXPECT_EQ(m_proxy->connections(), 1);
    m_proxy->endAssociations();
    expectGone();
}

// The whole number of flows with RUVOD_WHOLE=1.
TEST_F(UdpFlowsTest, keepsABoundedNumberOfFlows)
{
    static_assert(UdpFlows::maxFlows == 2048);
    const bool isWhole = qEnvironmentVariableIntValue("RUVOD_WHOLE") != 0;
    const std::uint16_t limit = isWhole ? UdpFlows::maxFlows : 50;
    makeFlows(limit);
    for (std::uint16_t port = 1; port <= limit; ++port)
        establish(port);
    establish(1, "the longest idle one is another now");
    for (std::uint16_t port = limit + 1; port <= limit + 10; ++port)
        establish(port);
    printf("%d flows opened, %zu kept\n", m_proxy->connections(), m_flows->size());
    EXPECT_EQ(m_flows->size(), std::size_t{limit});
    EXPECT_TRUE(waitUntil([&] { return m_port.inFlight() == 2 * limit; })) << m_port.inFlight();
    const int connections = m_proxy->connections();
    establish(1, "still known");
    establish(12, "still known");
    EXPECT_EQ(m_proxy->connections(), connections);
    establish(11, "gone");
    EXPECT_EQ(m_proxy->connections(), connections + 1);
}

TEST_F(UdpFlowsTest, delaysNobodyElseWhileAProxyDoesNotAnswer)
{
    useProxy({.isMute = true});
    for (std::uint16_t port = 1; port <= 300; ++port)
        send(port, "in vain");
    const auto begin = std::chrono::steady_clock::now();
    send(5000, "query", {server, 53});
    EXPECT_EQ(m_dns->receive().bytes, QByteArray::fromHex("000000015db8d8220035") + "query");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    const auto stop = std::chrono::steady_clock::now();
    m_flows->closeAll();
    expectGone();
    EXPECT_LT(std::chrono::steady_clock::now() - stop, 4s) << "an end does not wait for it either";
    send(1, "x");
    EXPECT_EQ(m_flows->size(), 0u) << "none is opened any more";
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, endsFlowsWhoseProxyDoesNotAnswerFor60Seconds)
{
    useProxy({.isMute = true});
    send(5000, "in vain");
    const UdpFlowPtr flow = onlyFlow();
    EXPECT_TRUE(waitUntil([&] { return flow->state() == 2; }));
    pass(59s);
    send(5000, "in vain"); // keeps it from being idle, and not from being overdue
    m_flows->expireHandshakes();
    EXPECT_EQ(m_flows->size(), 1u);
    pass(1s);
    m_flows->expireHandshakes();
    expectGone();
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, doesNotExpireAssociationsThatStand)
{
    establish(5000);
    pass(60s);
    establish(5000);
    pass(60s);
    m_flows->expireHandshakes();
    EXPECT_EQ(m_flows->size(), 1u);
    establish(5000);
    EXPECT_EQ(m_proxy->connections(), 1);
}

TEST_F(UdpFlowsTest, givesAllFlowsAwayForAResetAndOpensNewOnes)
{
    establish(5000);
    m_proxy->closeGate();
    send(5001, "in vain");
    const std::list<UdpFlowPtr> taken = m_flows->takeAll();
    EXPECT_EQ(taken.size(), 2u);
    EXPECT_EQ(m_flows->size(), 0u);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; })) << "what was in flight has been cancelled";
    m_proxy->openGate();
    const Datagram again = establish(5000, "again");
    for (const UdpFlowPtr &flow : taken) {
        m_flows->onDatagramReceived(flow, 0);
        m_flows->cleanupFlow(flow);
    }
    EXPECT_EQ(m_flows->size(), 1u) << "an old flow's end is not its successor's";
    m_proxy->answer(again, header + "new");
    ASSERT_TRUE(takePacket());
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(UdpFlowsTest, dropsACompletionThatComesAfterItsEnd)
{
    const Datagram datagram = establish(5000);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    stopWorkers();
    m_proxy->answer(datagram, header + "late");
    m_flows->closeAll();
    EXPECT_EQ(m_port.inFlight(), 2);
    EXPECT_TRUE(m_port.drain(10s));
    EXPECT_EQ(packetCount(), 0u);
}

TEST_F(UdpFlowsTest, dropsADatagramThatIsCutShortWithinItsHeader)
{
    const QByteArray packet = QByteArray::fromHex("4500001600004000401100000a0607015db8d8221388");
    m_flows->handleUdpPacket(parsePacket(reinterpret_cast<const std::uint8_t *>(packet.constData()), 22));
    EXPECT_EQ(m_flows->size(), 0u);
}

// Threads that send, end and sweep the same few flows, while the proxy answers.
TEST_F(UdpFlowsTest, leavesNothingBehindWhateverMeets)
{
    constexpr int rounds = 400;
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 3; ++number) {
        threads.emplace_back([this, number] {
            const QByteArray payload = "storm";
            const std::span bytes(reinterpret_cast<const std::uint8_t *>(payload.constData()), 5);
            unsigned state = number + 1;
            for (int i = 0; i < rounds; ++i) {
                state = state * 1664525 + 1013904223;
                const auto port = static_cast<std::uint16_t>(1 + (state >> 24) % 8);
                m_flows->forwardFallback({{tunnel, port}, {server, 443}}, bytes);
                if ((state >> 16) % 16 == 0) {
                    for (const UdpFlowPtr &flow : m_flows->flows())
                        m_flows->cleanupFlow(flow);
                }
                if ((state >> 16) % 64 == 1) {
                    for (const UdpFlowPtr &flow : m_flows->takeAll())
                        flow->close();
                }
                if ((state >> 16) % 16 == 2) {
                    pass(31s);
                    m_flows->sweepIdle();
                    m_flows->expireHandshakes();
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    printf("%d associations asked for\n", m_proxy->connections());
    m_flows->closeAll();
    expectGone();
    EXPECT_TRUE(m_log.lines().isEmpty()) << m_log.lines().join('\n').toStdString();
}

} // namespace
} // namespace ruvo::test
