#pragma once

#include "packet/packet_parser.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace ruvo {

/// Both ends of a TCP packet. Host order.
struct TcpEndpoints
{
    std::uint32_t srcIp = 0;
    std::uint16_t srcPort = 0;
    std::uint32_t dstIp = 0;
    std::uint16_t dstPort = 0;
    bool operator==(const TcpEndpoints &) const = default;
};

/// The way of TCP through a local listener. The dispatcher rewrites what goes to it and what comes back.
struct TcpNatPath
{
    std::uint16_t listenPort = 0;
    /// The client's connection (client to destination) whose packets reach the listener from `natPort`.
    std::function<std::optional<TcpEndpoints>(std::uint16_t natPort)> findByNatPort;
    /// The NAT port of a connection; 0 means that there is none. A SYN makes a new mapping.
    std::function<std::uint16_t(const TcpEndpoints &connection)> allocateNatPort;
    std::function<std::uint16_t(const TcpEndpoints &connection)> findNatPort;
    /// Sends a copy of the packet with other endpoints to the adapter; false if the packet cannot be rewritten.
    std::function<bool(const ParsedPacket &packet, const TcpEndpoints &endpoints)> sendRewritten;
};

/// A datagram on the NAT path. `destination` is what the application sees, `realDestination` where it goes.
struct UdpDatagram
{
    std::uint32_t srcIp = 0;
    std::uint16_t srcPort = 0;
    std::uint32_t dstIp = 0;
    std::uint16_t dstPort = 0;
    std::uint32_t realDstIp = 0;
    std::uint16_t realDstPort = 0;
    const std::uint8_t *payload = nullptr;
    std::size_t payloadLen = 0;
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

/// Where a datagram or connection really goes: what is sent to the tunnel's own DNS address goes to a public
/// resolver. Host order.
std::uint32_t realDestination(std::uint32_t address, std::uint16_t port, std::uint32_t tunnelIp);

/// Decides, for each packet that the adapter delivers, whether it is dropped, answered or handed to a path.
/// Reader thread only; no allocation but for the rare answer to a SYN.
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
};

} // namespace ruvo
