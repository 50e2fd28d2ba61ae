// Flows of one inbound beside those of the other.

#include "windows/nat/udp_nat_fixture.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

const QByteArray dnsHeader = QByteArray::fromHex("000000015db8d8220035");
/// More than there are threads that open associations.
constexpr std::uint16_t manyFlows = 20;

TEST_F(UdpNatRelayTest, doesNotHoldNewDnsFlowsUpWhileTheProxyIsMute)
{
    useProxy({.reply = std::nullopt, .isMute = true});
    startRelay();
    for (std::uint16_t port = 1; port <= manyFlows; ++port)
        ASSERT_TRUE(forward(port, "in vain"));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(forwardTo(53, 5000, "query"));
    EXPECT_EQ(m_direct->receive().bytes, dnsHeader + "query");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "a handshake waits for 5 s";
}

TEST_F(UdpNatRelayTest, doesNotHoldOthersUpWhileTheInboundOfDnsIsMute)
{
    m_direct = std::make_unique<AssociationProxy>(AssociationProxy::Answers{.reply = std::nullopt, .isMute = true});
    startRelay();
    for (std::uint16_t port = 1; port <= manyFlows; ++port)
        ASSERT_TRUE(forwardTo(53, port, "in vain"));
    const auto begin = std::chrono::steady_clock::now();
    establish(5000);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
}

// Each inbound has room for 1,024 flows that wait.
TEST_F(UdpNatRelayTest, dropsNoDnsFlowForOthers)
{
    useProxy({.reply = std::nullopt, .isMute = true});
    startRelay();
    m_direct->closeGate();
    for (std::uint16_t port = 1; port <= manyFlows; ++port)
        ASSERT_TRUE(forwardTo(53, port, "query"));
    for (std::uint16_t port = 1; port <= 1100; ++port)
        ASSERT_TRUE(forward(port, "in vain"));
    m_direct->openGate();
    for (std::uint16_t port = 1; port <= manyFlows; ++port)
        EXPECT_EQ(m_direct->receive().bytes, dnsHeader + "query");
}

// Whose a flow is takes time to find out, too.
TEST_F(UdpNatRelayTest, dropsNoDnsFlowForOthersThatAreAskedAbout)
{
    const KernelHandle gate(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    m_relay->setQuestions({.wayFor =
                               [&](const FlowKey &flow) {
                                   if (flow.destination.port != 53)
                                       WaitForSingleObject(gate.get(), 20000);
                                   return UdpWay::Associate;
                               },
                           .physicalInterface = [] { return 0u; }});
    startRelay();
    for (std::uint16_t port = 1; port <= 1100; ++port)
        ASSERT_TRUE(forward(port, "in vain"));
    for (std::uint16_t port = 1; port <= manyFlows; ++port) {
        ASSERT_TRUE(forwardTo(53, port, "query"));
        EXPECT_EQ(m_direct->receive().bytes, dnsHeader + "query");
    }
    SetEvent(gate.get());
    m_relay->shutdown(); // before the gate goes
}

TEST_F(UdpNatRelayTest, keepsABoundedNumberOfAssociationsForEachInbound)
{
    constexpr std::uint16_t limit = 5;
    makeRelay(limit);
    startRelay();
    for (std::uint16_t port = 1; port <= limit; ++port)
        establish(port);
    for (std::uint16_t port = 1; port <= limit + 2; ++port) {
        ASSERT_TRUE(forwardTo(53, port, "query"));
        EXPECT_EQ(m_direct->receive().bytes, dnsHeader + "query");
    }
    EXPECT_EQ(m_relay->sessions(), std::size_t{2 * limit});
    for (std::uint16_t port = 1; port <= limit; ++port)
        establish(port, "still known");
    EXPECT_EQ(m_proxy->connections(), limit);
    pass(61);
    m_relay->expireIdle();
    EXPECT_EQ(m_relay->sessions(), 0u);
}

} // namespace
} // namespace ruvo::test
