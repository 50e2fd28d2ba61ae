#pragma once

#include "common/capped_log.h"
#include "common/endpoint.h"
#include "packet/packet_parser.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

namespace ruvo {

/// The way of TCP through a local listener. The dispatcher rewrites what goes to it and what comes back.
struct TcpNatPath
{
    std::uint16_t listenPort = 0;
    /// The client's connection (client to destination) whose packets reach the listener from `natPort`.
    std::function<std::optional<FlowKey>(std::uint16_t natPort)> findByNatPort;
    /// The NAT port of a connection; 0 means that there is none. A SYN makes a new mapping.
    std::function<std::uint16_t(const FlowKey &connection)> allocateNatPort;
    std::function<std::uint16_t(const FlowKey &connection)> findNatPort;
    /// Sends a copy of the packet with other endpoints to the adapter; false if the packet cannot be rewritten.
    std::function<bool(const ParsedPacket &packet, const FlowKey &endpoints)> sendRewritten;
};

/// A datagram on the NAT path.
struct UdpDatagram
{
    /// What the application sees.
    FlowKey flow;
    /// Where it really goes.
    Endpoint target;
    /// Points into the packet that was dispatched.
    std::span<const std::uint8_t> payload;
};

/// Where packets can go. What is not set drops them.
struct PacketPaths
{
    /// Into the adapter.
    std::function<void(const std::uint8_t *data, std::size_t len)> send;
    std::optional<TcpNatPath> tcpNat;
    std::function<void(const ParsedPacket &packet)> tcpEngine;
    /// False if it cannot take the datagram: the flow path gets it then.
    std::function<bool(const UdpDatagram &datagram)> udpNat;
    std::function<void(const ParsedPacket &packet)> udpFlow;
};

/// Decides, for each packet that the adapter delivers, whether it is dropped, answered or handed to a path.
/// Reader thread only; no allocation but for the rare answer to a SYN, and for what a path itself makes of a packet.
/// std::bad_alloc then leaves the packet dropped.
class PacketDispatcher
{
public:
    /// `tunnelIp` in host order.
    PacketDispatcher(std::uint32_t tunnelIp, PacketPaths paths);

    /// While the proxy is not ready, connections are refused and all else is dropped.
    void dispatch(const std::uint8_t *data, std::size_t len, bool proxyReady);

private:
    void refuse(const ParsedPacket &packet);
    bool dispatchToTcpNat(const ParsedPacket &packet);
    void dispatchToProtocol(const ParsedPacket &packet);
    void dispatchUdp(const ParsedPacket &packet);
    void returnToClient(const ParsedPacket &packet);
    void sendToListener(const ParsedPacket &packet, std::uint16_t natPort);

    const std::uint32_t m_tunnelIp;
    const PacketPaths m_paths;

    // Any program can send any number of packets that are warned of.
    CappedLog m_fragments{5, 1000};
    CappedLog m_toListener{10, 100};
    CappedLog m_notRewritten{10, 100};
    CappedLog m_refused{10, 100};
};

} // namespace ruvo
