#include "tun/packet_dispatcher.h"

#include "common/dns_redirect.h"
#include "common/ipv4.h"
#include "common/log_category.h"
#include "packet/packet_builder.h"
#include "packet/packet_filter.h"
#include "packet/packet_headers.h"

#include <utility>

namespace ruvo {

namespace {

bool isTcp(const ParsedPacket &packet)
{
    return packet.protocol == protocolTcp;
}

bool isOpening(const ParsedPacket &packet)
{
    return isTcp(packet) && (packet.tcpFlags & (tcpSyn | tcpAck)) == tcpSyn;
}

FlowKey flowOf(const ParsedPacket &packet)
{
    return {.source = {packet.srcIp, packet.srcPort}, .destination = {packet.dstIp, packet.dstPort}};
}

} // namespace

PacketDispatcher::PacketDispatcher(std::uint32_t tunnelIp, PacketPaths paths)
    : m_tunnelIp(tunnelIp), m_paths(std::move(paths))
{}

void PacketDispatcher::dispatch(const std::uint8_t *data, std::size_t len, bool proxyReady)
{
    const ParsedPacket packet = parsePacket(data, len);
    if (!packet.valid)
        return;
    if (!proxyReady) {
        if (isOpening(packet))
            refuse(packet);
        return;
    }
    if (isUnroutable(packet))
        return;
    if (isFragment(packet)) {
        if (m_fragments.take())
            qCWarning(lcRuvod) << "[RUVO-TUN] Fragment dropped, protocol:" << packet.protocol << "size:" << len;
        return;
    }
    if (packet.version == 4 && isTcp(packet) && m_paths.tcpNat && dispatchToTcpNat(packet))
        return;
    dispatchToProtocol(packet);
}

// RFC 9293 section 3.5.2: a reset in answer to a SYN acknowledges it. There are no IPv6 packets to answer with.
void PacketDispatcher::refuse(const ParsedPacket &packet)
{
    if (packet.version != 4)
        return;
    const PacketBytes answer = buildTcpPacket(packet.dstIp, packet.dstPort, packet.srcIp, packet.srcPort, 0,
                                              packet.seq + 1, tcpRst | tcpAck, nullptr, 0);
    m_paths.send(answer.data(), answer.size());
}

/// Whether the packet has been dealt with; otherwise the engine gets it.
bool PacketDispatcher::dispatchToTcpNat(const ParsedPacket &packet)
{
    const TcpNatPath &nat = *m_paths.tcpNat;
    if (packet.srcIp == m_tunnelIp && packet.srcPort == nat.listenPort) {
        returnToClient(packet);
        return true;
    }
    if (packet.dstIp == m_tunnelIp && packet.dstPort == nat.listenPort) {
        if (m_toListener.take()) {
            qCWarning(lcRuvod).nospace().noquote()
                << "[NAT-DROP] Packet to listener intercepted! src=" << formatIpv4(packet.srcIp) << ":"
                << packet.srcPort << " dst=" << formatIpv4(packet.dstIp) << ":" << packet.dstPort
                << " - Windows is routing local traffic through TUN!";
        }
        return true;
    }
    if (packet.srcIp != m_tunnelIp)
        return false;
    const FlowKey connection = flowOf(packet);
    const std::uint16_t natPort = isOpening(packet) ? nat.allocateNatPort(connection) : nat.findNatPort(connection);
    if (natPort == 0)
        return false;
    sendToListener(packet, natPort);
    return true;
}

void PacketDispatcher::returnToClient(const ParsedPacket &packet)
{
    const std::optional<FlowKey> client = m_paths.tcpNat->findByNatPort(packet.dstPort);
    if (!client)
        return;
    m_paths.tcpNat->sendRewritten(packet, {.source = client->destination, .destination = client->source});
}

void PacketDispatcher::sendToListener(const ParsedPacket &packet, std::uint16_t natPort)
{
    const TcpNatPath &nat = *m_paths.tcpNat;
    const FlowKey rewritten{.source = {m_tunnelIp + 1, natPort}, .destination = {m_tunnelIp, nat.listenPort}};
    if (!nat.sendRewritten(packet, rewritten) && m_notRewritten.take())
        qCWarning(lcRuvod) << "[NAT-ERROR] Packet rewriting failed for NAT port" << natPort;
}

void PacketDispatcher::dispatchToProtocol(const ParsedPacket &packet)
{
    if (isTcp(packet)) {
        if (m_paths.tcpEngine)
            m_paths.tcpEngine(packet);
    } else if (packet.protocol == protocolUdp) {
        dispatchUdp(packet);
    }
}

void PacketDispatcher::dispatchUdp(const ParsedPacket &packet)
{
    if (packet.version == 4 && m_paths.udpNat) {
        const FlowKey flow = flowOf(packet);
        const UdpDatagram datagram{
            .flow = flow,
            .target = realDestination(flow.destination, m_tunnelIp),
            .payload = {packet.payload, packet.payloadLen},
        };
        if (m_paths.udpNat(datagram))
            return;
        if (m_refused.take())
            qCWarning(lcRuvod) << "[UDP-NAT] Forward failed, falling back to old handler";
    }
    if (m_paths.udpFlow)
        m_paths.udpFlow(packet);
}

} // namespace ruvo
