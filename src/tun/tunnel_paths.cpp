// The ways that packets take through the tunnel, and the decisions that those ways ask for.

#include "tun/tunnel.h"

#include "common/capped_log.h"
#include "common/dns_redirect.h"
#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/port_owner_lookup.h"
#include "packet/packet_rewrite.h"

#include <QString>

#include <cstring>

namespace ruvo {

Tunnel::Result Tunnel::openTcpNat()
{
    m_natListener = std::make_shared<TcpNatListener>();
    m_relayConnector = std::make_unique<RelayConnector>(
        m_settings.proxyHost, m_completionPort, m_natListener->table(),
        RelayConnector::Questions{
            .routeFor = [this](const TcpNatSession &session) { return routeFor(session); },
            .nameOf = [this](std::uint32_t address) { return m_learnedNames.nameOf(address); },
            .physicalInterface = [this] { return m_physicalInterface.load(); },
            .proxyWitness = proxyWitness(),
        });
    std::uint16_t port = 0;
    const bool isListening = m_natListener->initialize(
        m_tunnelIp, 0, m_completionPort,
        [this](Socket client, const TcpNatSessionPtr &session) {
            m_relayConnector->relay(std::move(client), session);
        },
        port);
    if (!isListening) {
        qCCritical(lcRuvod) << "Failed to initialize TCP NAT";
        return std::unexpected("Failed to initialize TCP NAT listener");
    }
    qCInfo(lcRuvod) << "[TCP-NAT] Listener port assigned by OS:" << port;
    return {};
}

void Tunnel::openUdpNat()
{
    m_udpNatRelay = std::make_unique<UdpNatRelay>(m_stopEvent.get());
    m_udpNatRelay->setProxyWitness(proxyWitness());
    m_udpNatRelay->setQuestions({
        .wayFor = [this](const FlowKey &flow) { return udpWayFor(flow); },
        .physicalInterface = [this] { return m_physicalInterface.load(); },
    });
    const auto send = [this](const std::uint8_t *packet, std::size_t length) {
        m_adapter->sendPacket(packet, static_cast<std::uint32_t>(length));
    };
    if (!m_udpNatRelay->initialize(m_tunnelIp, QString::fromStdWString(m_settings.proxyHost).toStdString(),
                                   m_settings.proxyPort, m_settings.directPort, m_completionPort, send)) {
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to initialize (UDP forwarding disabled)";
        m_udpNatRelay.reset();
        return;
    }
    qCDebug(lcRuvod).nospace() << "[UDP-NAT] Initialized for SOCKS5 UDP forwarding (proxy:" << m_settings.proxyPort
                               << ", direct:" << m_settings.directPort << ")";
}

void Tunnel::openDispatcher()
{
    PacketPaths paths;
    paths.send = [this](const std::uint8_t *data, std::size_t len) {
        m_adapter->sendPacket(data, static_cast<std::uint32_t>(len));
    };
    paths.tcpNat = tcpNatPath();
    if (m_udpNatRelay) {
        paths.udpNat = [this](const UdpDatagram &datagram) {
            return m_udpNatRelay->forward(datagram.flow, datagram.target, datagram.payload);
        };
    }
    paths.tcpEngine = [this](const ParsedPacket &packet) { m_tcpEngine->handleTcpPacket(packet); };
    paths.udpFlow = [this](const ParsedPacket &packet) { m_udpFlows->handleUdpPacket(packet); };
    m_dispatcher = std::make_unique<PacketDispatcher>(m_tunnelIp, std::move(paths));
}

TcpNatPath Tunnel::tcpNatPath()
{
    TcpNatTable &table = m_natListener->table();
    return {
        .listenPort = m_natListener->listenPort(),
        .findByNatPort = [&table](std::uint16_t natPort) -> std::optional<FlowKey> {
            const TcpNatSessionPtr session = table.findByNatPort(natPort);
            if (!session)
                return std::nullopt;
            return session->flow;
        },
        .allocateNatPort = [&table](const FlowKey &connection) { return table.allocateNatPort(connection); },
        .findNatPort = [&table](const FlowKey &connection) { return table.findNatPort(connection); },
        .sendRewritten =
            [this](const ParsedPacket &packet, const FlowKey &to) {
                if (!isRewritableTcp(packet.raw, packet.rawLen))
                    return false;
                // Straight into the adapter's ring, and rewritten there.
                if (std::uint8_t *copy = m_adapter->allocatePacket(static_cast<std::uint32_t>(packet.rawLen))) {
                    std::memcpy(copy, packet.raw, packet.rawLen);
                    rewriteTcpAddresses(copy, packet.rawLen, to.source.address, to.source.port,
                                        to.destination.address, to.destination.port);
                    m_adapter->sendAllocated(copy);
                }
                return true;
            },
    };
}

std::optional<RelayRoute> Tunnel::routeFor(const TcpNatSession &session) const
{
    if (!m_running)
        return std::nullopt;
    const std::uint32_t owner = PortOwnerLookup::tcpOwnerPid(session.client().port, session.destination().address,
                                                             session.destination().port);
    if (owner == GetCurrentProcessId()) {
        static CappedLog s_loops(5, 1000);
        if (s_loops.take()) {
            qCWarning(lcRuvod).nospace().noquote()
                << "[TCP-NAT] Own connection to " << formatIpv4(session.destination().address) << ":"
                << session.destination().port << " came back through the tunnel, closing it";
        }
        return std::nullopt;
    }
    const std::wstring image = owner == 0 ? std::wstring() : PortOwnerLookup::processImage(owner);
    const Endpoint target = realDestination(session.destination(), m_tunnelIp);
    const UpstreamDecision upstream = decide(image, target.address, target.port);
    return RelayRoute{
        .address = target.address,
        .port = target.port,
        .isDirect = upstream.isDirect,
        .proxyPort = upstream.port,
    };
}

/// What would go round for ever: the proxy's own datagrams to a relay address inside the tunnel, and a core's that it
/// has not bound to an interface.
UdpWay Tunnel::udpWayFor(const FlowKey &flow) const
{
    if (flow.source.address != m_tunnelIp)
        return UdpWay::Associate; // another machine's: its port says nothing about this one's programs
    const std::uint32_t owner = PortOwnerLookup::udpOwnerPid(flow.source);
    if (owner == 0)
        return UdpWay::Associate;
    if (owner == GetCurrentProcessId()) {
        static CappedLog s_loops(5, 1000);
        if (s_loops.take()) {
            qCWarning(lcRuvod).nospace().noquote() << "[UDP-NAT] Own datagram to " << formatEndpoint(flow.destination)
                                                   << " came back through the tunnel, dropping it";
        }
        return UdpWay::Drop;
    }
    return m_upstreamChoice.isAlwaysDirect(PortOwnerLookup::processImage(owner)) ? UdpWay::Direct : UdpWay::Associate;
}

/// Nothing reaches the tables any more: workers and flow control are gone, and the dispatcher drops everything.
void Tunnel::closePaths()
{
    m_natListener->shutdown();
    m_relayConnector->stop();
    if (m_udpNatRelay)
        m_udpNatRelay->shutdown();
    m_tcpEngine->close();
    m_udpFlows->closeAll();
    m_proxyCheck->stop();
}

} // namespace ruvo
