// When flows end, and what is left of them.

#include "windows/engine/udp_flows_fixture.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Datagram = AssociationServer::Datagram;

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

// A port in TIME_WAIT for each flow of the last minutes would leave none for new ones.
TEST_F(UdpFlowsTest, resetsTheControlConnectionOfAFlowThatEnds)
{
    establish(5000);
    pass(61s);
    m_flows->sweepIdle();
    EXPECT_EQ(m_proxy->endOfFirst(), Ending::Reset);
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
