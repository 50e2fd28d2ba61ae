#include "tun/packet_dispatcher.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <vector>

namespace ruvo {
namespace {

constexpr std::uint32_t tunnel = 0x0A060701;
constexpr std::uint32_t tunnelDns = tunnel + 1;
constexpr std::uint32_t guest = 0x0A090909;
constexpr std::uint32_t server = 0x5DB8D822; // 93.184.216.34
constexpr std::uint16_t listenPort = 4444;

/// A dispatcher whose paths write down what they get.
class PacketDispatcherTest : public ::testing::Test
{
protected:
    struct Rewritten
    {
        FlowKey from;
        FlowKey to;
    };

    PacketPaths paths()
    {
        PacketPaths all;
        all.send = [this](const std::uint8_t *data, std::size_t len) { sent.emplace_back(data, data + len); };
        all.tcpEngine = [this](const ParsedPacket &packet) { toEngine.push_back(packet.dstPort); };
        all.udpFlow = [this](const ParsedPacket &packet) { toFlow.push_back(packet.dstPort); };
        return all;
    }

    PacketPaths pathsWithNat()
    {
        PacketPaths all = paths();
        TcpNatPath nat;
        nat.listenPort = listenPort;
        nat.findByNatPort = [this](std::uint16_t port) {
            return port == natPort ? std::optional(connection) : std::nullopt;
        };
        nat.allocateNatPort = [this](const FlowKey &endpoints) {
            allocated.push_back(endpoints);
            return natPort;
        };
        nat.findNatPort = [this](const FlowKey &endpoints) {
            return endpoints == connection ? natPort : std::uint16_t(0);
        };
        nat.sendRewritten = [this](const ParsedPacket &packet, const FlowKey &to) {
            rewritten.push_back({{{packet.srcIp, packet.srcPort}, {packet.dstIp, packet.dstPort}}, to});
            return !refuseRewriting;
        };
        all.tcpNat = std::move(nat);
        all.udpNat = [this](const UdpDatagram &datagram) {
            datagrams.push_back(datagram);
            return !refuseDatagrams;
        };
        return all;
    }

    static void dispatch(PacketPaths to, const PacketBytes &packet, bool proxyReady = true)
    {
        PacketDispatcher(tunnel, std::move(to)).dispatch(packet.data(), packet.size(), proxyReady);
    }

    bool nothingHappened() const
    {
        return sent.empty() && toEngine.empty() && toFlow.empty() && rewritten.empty() && datagrams.empty();
    }

    static PacketBytes tcp(std::uint32_t src, std::uint16_t srcPort, std::uint32_t dst, std::uint16_t dstPort,
                           std::uint8_t flags = tcpAck)
    {
        return buildTcpPacket(src, srcPort, dst, dstPort, 1000, 0, flags, nullptr, 0);
    }

    static PacketBytes udp(std::uint32_t dst, std::uint16_t dstPort)
    {
        const std::uint8_t payload[] = {1, 2, 3};
        return buildUdpPacket(tunnel, 5000, dst, dstPort, payload, sizeof(payload));
    }

    static PacketBytes ipv6(std::uint8_t firstByte, std::uint8_t lastByte, std::uint8_t protocol)
    {
        PacketBytes packet(60);
        packet[0] = 0x60;
        packet[6] = protocol;
        packet[24] = firstByte;
        packet[39] = lastByte;
        packet[43] = 99;   // destination port
        packet[52] = 0x50; // data offset
        packet[53] = tcpSyn;
        return packet;
    }

    const FlowKey connection{{tunnel, 5000}, {server, 443}};
    std::uint16_t natPort = 30000;
    bool refuseRewriting = false;
    bool refuseDatagrams = false;
    std::vector<PacketBytes> sent;
    std::vector<std::uint16_t> toEngine;
    std::vector<std::uint16_t> toFlow;
    std::vector<FlowKey> allocated;
    std::vector<Rewritten> rewritten;
    std::vector<UdpDatagram> datagrams;
};

TEST_F(PacketDispatcherTest, dropsWhatIsNoPacket)
{
    dispatch(pathsWithNat(), PacketBytes(19));
    dispatch(pathsWithNat(), PacketBytes(60, 0xFF));
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, whileTheProxyIsNotReadyRefusesConnections)
{
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn), false);
    ASSERT_EQ(sent.size(), 1u);
    const ParsedPacket answer = parsePacket(sent[0].data(), sent[0].size());
    EXPECT_EQ(sent[0].size(), 40u);
    EXPECT_EQ(answer.tcpFlags, tcpRst | tcpAck);
    EXPECT_EQ(answer.seq, 0u);
    EXPECT_EQ(answer.ack, 1001u);
    EXPECT_EQ(answer.srcIp, server);
    EXPECT_EQ(answer.srcPort, 443);
    EXPECT_EQ(answer.dstIp, tunnel);
    EXPECT_EQ(answer.dstPort, 5000);
    EXPECT_TRUE(rewritten.empty());
}

TEST_F(PacketDispatcherTest, whileTheProxyIsNotReadyDropsAllElse)
{
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpAck), false);
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn | tcpAck), false);
    dispatch(pathsWithNat(), udp(server, 53), false);
    dispatch(pathsWithNat(), ipv6(0x20, 1, protocolTcp), false); // nothing can be answered in IPv6
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, whileTheProxyIsNotReadyRefusesWhateverTheDestination)
{
    dispatch(pathsWithNat(), tcp(guest, 5000, 0xC0A801FF, 443, tcpSyn), false);
    dispatch(pathsWithNat(), tcp(guest, 5000, tunnel, listenPort, tcpSyn | tcpPsh), false);
    EXPECT_EQ(sent.size(), 2u);
    EXPECT_TRUE(toEngine.empty());
}

TEST_F(PacketDispatcherTest, dropsWhatNeverGoesThroughATunnel)
{
    for (const std::uint32_t address :
         {0x7F000001u, 0x7FFFFFFEu, 0xE0000001u, 0xEFFFFFFAu, 0xA9FE0101u, 0xC0A801FFu, 0xFFFFFFFFu}) {
        dispatch(pathsWithNat(), tcp(tunnel, 5000, address, 443, tcpSyn));
        dispatch(pathsWithNat(), udp(address, 1900));
    }
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, takesTheNeighboursOfWhatItDrops)
{
    for (const std::uint32_t address :
         {0x7E000001u, 0x80000001u, 0xDFFFFFFEu, 0xF0000001u, 0xA9FD0101u, 0xA9FF0101u, 0xC0A801FEu})
        dispatch(paths(), tcp(guest, 5000, address, 443));
    EXPECT_EQ(toEngine.size(), 7u);
}

TEST_F(PacketDispatcherTest, dropsIpv6MulticastAndLoopback)
{
    dispatch(paths(), ipv6(0xFF, 2, protocolTcp));
    dispatch(paths(), ipv6(0x00, 1, protocolTcp));
    EXPECT_TRUE(nothingHappened());
    dispatch(paths(), ipv6(0x00, 2, protocolTcp));
    dispatch(paths(), ipv6(0x20, 1, protocolTcp));
    EXPECT_EQ(toEngine.size(), 2u);
}

TEST_F(PacketDispatcherTest, ipv6NeverTakesANatPath)
{
    dispatch(pathsWithNat(), ipv6(0x20, 1, protocolTcp));
    dispatch(pathsWithNat(), ipv6(0x20, 1, protocolUdp));
    EXPECT_EQ(toEngine, std::vector<std::uint16_t>{99});
    EXPECT_EQ(toFlow, std::vector<std::uint16_t>{99});
    EXPECT_TRUE(datagrams.empty());
    EXPECT_TRUE(rewritten.empty());
}

TEST_F(PacketDispatcherTest, dropsFragmentsAndSaysSo)
{
    const test::LogCapture log;
    PacketBytes first = udp(server, 53);
    first[6] = 0x20; // more fragments
    PacketBytes last = udp(server, 53);
    last[6] = 0x00;
    last[7] = 0x08; // offset 64
    PacketBytes ipv6Fragment = ipv6(0x20, 1, 44);
    ipv6Fragment[40] = protocolUdp;
    ipv6Fragment[43] = 0x01; // more fragments
    PacketDispatcher dispatcher(tunnel, pathsWithNat());
    for (const PacketBytes &fragment : {first, last, ipv6Fragment})
        dispatcher.dispatch(fragment.data(), fragment.size(), true);
    EXPECT_EQ(log.linesWith("Fragment dropped").size(), 3);
    for (int number = 4; number < 1000; ++number)
        dispatcher.dispatch(first.data(), first.size(), true);
    EXPECT_EQ(log.linesWith("Fragment dropped").size(), 5) << "capped";
    dispatcher.dispatch(first.data(), first.size(), true);
    EXPECT_EQ(log.linesWith("Fragment dropped").size(), 6) << "the 1000th is told of again";
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, takesWholePacketsThatMayNotBeFragmented)
{
    PacketBytes packet = udp(server, 99);
    packet[6] = 0x40; // don't fragment
    dispatch(paths(), packet);
    PacketBytes whole = ipv6(0x20, 1, 44); // an IPv6 fragment header around a whole packet
    whole[40] = 59;                        // no next header
    dispatch(paths(), whole);
    EXPECT_EQ(toFlow, std::vector<std::uint16_t>{99});
}

TEST_F(PacketDispatcherTest, aNewConnectionOfTheHostGoesToTheListener)
{
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn));
    EXPECT_EQ(allocated, std::vector{connection});
    ASSERT_EQ(rewritten.size(), 1u);
    EXPECT_EQ(rewritten[0].to, (FlowKey{{tunnelDns, natPort}, {tunnel, listenPort}}));
    EXPECT_TRUE(toEngine.empty());
}

TEST_F(PacketDispatcherTest, aKnownConnectionKeepsItsNatPort)
{
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpAck));
    EXPECT_TRUE(allocated.empty());
    ASSERT_EQ(rewritten.size(), 1u);
    EXPECT_EQ(rewritten[0].to, (FlowKey{{tunnelDns, natPort}, {tunnel, listenPort}}));
}

TEST_F(PacketDispatcherTest, withoutAMappingTheEngineGetsThePacket)
{
    dispatch(pathsWithNat(), tcp(tunnel, 6000, server, 443, tcpAck));
    natPort = 0;
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 444, tcpSyn));
    EXPECT_EQ(toEngine, (std::vector<std::uint16_t>{443, 444}));
    EXPECT_TRUE(rewritten.empty());
}

TEST_F(PacketDispatcherTest, theListenersAnswerGoesBackToTheClient)
{
    dispatch(pathsWithNat(), tcp(tunnel, listenPort, tunnelDns, natPort));
    ASSERT_EQ(rewritten.size(), 1u);
    EXPECT_EQ(rewritten[0].to, (FlowKey{{server, 443}, {tunnel, 5000}}));
}

TEST_F(PacketDispatcherTest, anAnswerWithoutASessionIsDropped)
{
    dispatch(pathsWithNat(), tcp(tunnel, listenPort, tunnelDns, 1));
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, aPacketToTheListenerItselfIsDroppedWithAWarning)
{
    const test::LogCapture log;
    dispatch(pathsWithNat(), tcp(guest, 7, tunnel, listenPort));
    EXPECT_TRUE(nothingHappened());
    EXPECT_EQ(log.linesWith("[NAT-DROP]"),
              QStringList{"WARNING [NAT-DROP] Packet to listener intercepted! src=10.9.9.9:7 "
                          "dst=10.6.7.1:4444 - Windows is routing local traffic through TUN!"});
}

TEST_F(PacketDispatcherTest, onlyTheListenersAddressAndPortTogetherAreTheListener)
{
    dispatch(pathsWithNat(), tcp(guest, 7, tunnel, listenPort + 1));
    dispatch(pathsWithNat(), tcp(guest, listenPort, server, 443));
    dispatch(pathsWithNat(), tcp(guest, 7, server, listenPort));
    EXPECT_EQ(toEngine, (std::vector<std::uint16_t>{listenPort + 1, 443, listenPort}));
    EXPECT_TRUE(rewritten.empty());
}

TEST_F(PacketDispatcherTest, aSynThatIsNoAnswerOpensAConnectionWhateverItsOtherFlags)
{
    constexpr std::uint8_t ece = 0x40;
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn | ece));
    EXPECT_EQ(allocated.size(), 1u);
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn | tcpAck));
    EXPECT_EQ(allocated.size(), 1u) << "an answer";
}

TEST_F(PacketDispatcherTest, otherHostsConnectionsGoToTheEngine)
{
    dispatch(pathsWithNat(), tcp(guest, 5000, server, 443, tcpSyn));
    EXPECT_EQ(toEngine, std::vector<std::uint16_t>{443});
}

TEST_F(PacketDispatcherTest, aPacketThatCannotBeRewrittenIsDroppedWithAWarning)
{
    const test::LogCapture log;
    refuseRewriting = true;
    dispatch(pathsWithNat(), tcp(tunnel, 5000, server, 443, tcpSyn));
    EXPECT_EQ(log.lines(), QStringList{"WARNING [NAT-ERROR] Packet rewriting failed for NAT port 30000"});
    EXPECT_TRUE(toEngine.empty());
}

// Whoever sends them could fill the disk with them.
TEST_F(PacketDispatcherTest, warnsOfTheFirstTenAndOfEveryHundredthOfItsKind)
{
    const test::LogCapture log;
    refuseRewriting = true;
    refuseDatagrams = true;
    PacketDispatcher dispatcher(tunnel, pathsWithNat());
    const PacketBytes packets[] = {
        tcp(guest, 7, tunnel, listenPort),
        tcp(tunnel, 5000, server, 443, tcpSyn),
        udp(server, 4433),
    };
    for (int number = 1; number <= 210; ++number) {
        for (const PacketBytes &packet : packets)
            dispatcher.dispatch(packet.data(), packet.size(), true);
    }
    for (const char *kind : {"[NAT-DROP]", "[NAT-ERROR]", "[UDP-NAT] Forward failed"})
        EXPECT_EQ(log.linesWith(kind).size(), 12) << kind;
}

TEST_F(PacketDispatcherTest, datagramsGoToTheNatRelayAsTheyAre)
{
    dispatch(pathsWithNat(), udp(server, 4433));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0].flow, (FlowKey{{tunnel, 5000}, {server, 4433}}));
    EXPECT_EQ(datagrams[0].target, (Endpoint{server, 4433}));
    EXPECT_EQ(datagrams[0].payload.size(), 3u);
}

TEST_F(PacketDispatcherTest, queriesToTheTunnelsDnsAddressGoToAPublicResolver)
{
    dispatch(pathsWithNat(), udp(tunnelDns, 53));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0].flow.destination, (Endpoint{tunnelDns, 53})) << "what the application sees";
    EXPECT_EQ(datagrams[0].target, (Endpoint{0x08080808, 53}));
}

TEST_F(PacketDispatcherTest, otherPortsOfTheTunnelsDnsAddressAreNotReplaced)
{
    dispatch(pathsWithNat(), udp(tunnelDns, 54));
    ASSERT_EQ(datagrams.size(), 1u);
    EXPECT_EQ(datagrams[0].target, (Endpoint{tunnelDns, 54}));
}

TEST_F(PacketDispatcherTest, aDatagramThatTheRelayRefusesGoesToTheFlows)
{
    const test::LogCapture log;
    refuseDatagrams = true;
    dispatch(pathsWithNat(), udp(server, 4433));
    EXPECT_EQ(toFlow, std::vector<std::uint16_t>{4433});
    EXPECT_EQ(log.lines(), QStringList{"WARNING [UDP-NAT] Forward failed, falling back to old handler"});
}

TEST_F(PacketDispatcherTest, withoutARelayDatagramsGoToTheFlows)
{
    dispatch(paths(), udp(server, 4433));
    EXPECT_EQ(toFlow, std::vector<std::uint16_t>{4433});
}

TEST_F(PacketDispatcherTest, dropsOtherProtocols)
{
    PacketBytes icmp = udp(server, 4433);
    icmp[9] = protocolIcmp;
    PacketBytes gre = udp(server, 4433);
    gre[9] = 47;
    dispatch(pathsWithNat(), icmp);
    dispatch(pathsWithNat(), gre);
    EXPECT_TRUE(nothingHappened());
}

TEST_F(PacketDispatcherTest, withoutAnyPathPacketsAreDropped)
{
    dispatch({}, tcp(tunnel, 5000, server, 443, tcpSyn));
    dispatch({}, udp(server, 53));
    EXPECT_TRUE(nothingHappened());
}

} // namespace
} // namespace ruvo
