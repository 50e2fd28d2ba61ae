#include "packet/packet_parser.h"

#include "packet/packet_headers.h"

#include <QtEndian>

#include <algorithm>
#include <span>

namespace ruvo {

namespace {

/// What has not been read yet.
using Rest = std::span<const std::uint8_t>;

constexpr std::size_t ipv6NextHeaderOffset = 6;
constexpr std::size_t ipv6DestinationOffset = 24;
constexpr std::size_t shortestExtensionHeader = 2;

/// RFC 8200, section 4: the headers that may stand between the IPv6 header and the transport's. All four begin with
/// the type of what follows them and their own length.
constexpr bool isExtensionHeader(std::uint8_t type)
{
    constexpr std::uint8_t hopByHop = 0, routing = 43, fragment = 44, destinationOptions = 60;
    return type == hopByHop || type == routing || type == fragment || type == destinationOptions;
}

void setPayload(ParsedPacket &packet, Rest payload)
{
    packet.payload = payload.data();
    packet.payloadLen = payload.size();
}

void readPorts(ParsedPacket &packet, Rest header)
{
    packet.transport = header.data();
    packet.srcPort = qFromBigEndian<quint16>(&header[sourcePortOffset]);
    packet.dstPort = qFromBigEndian<quint16>(&header[destinationPortOffset]);
}

/// `segment` holds at least a TCP header without options.
void readTcp(ParsedPacket &packet, Rest segment)
{
    readPorts(packet, segment);
    packet.seq = qFromBigEndian<quint32>(&segment[tcpSequenceOffset]);
    packet.ack = qFromBigEndian<quint32>(&segment[tcpAcknowledgementOffset]);
    packet.tcpFlags = segment[tcpFlagsOffset];
    const std::size_t headerSize = (segment[tcpDataOffsetOffset] >> 4) * std::size_t{4};
    if (segment.size() >= headerSize)
        setPayload(packet, segment.subspan(headerSize));
}

/// `datagram` holds at least a UDP header.
void readUdp(ParsedPacket &packet, Rest datagram)
{
    readPorts(packet, datagram);
    setPayload(packet, datagram.subspan(udpHeaderSize));
}

void readIpv4(ParsedPacket &packet, Rest rest)
{
    const std::size_t headerSize = (rest[0] & 0x0f) * std::size_t{4};
    if (rest.size() < headerSize)
        return;
    packet.valid = true;
    packet.protocol = rest[ipv4ProtocolOffset];
    packet.srcIp = qFromBigEndian<quint32>(&rest[ipv4SourceOffset]);
    packet.dstIp = qFromBigEndian<quint32>(&rest[ipv4DestinationOffset]);
    rest = rest.subspan(headerSize);
    if (packet.protocol == protocolTcp && rest.size() >= tcpHeaderSize)
        readTcp(packet, rest);
    else if (packet.protocol == protocolUdp && rest.size() >= udpHeaderSize)
        readUdp(packet, rest);
    else if (packet.protocol == protocolIcmp)
        setPayload(packet, rest);
}

/// Steps over the extension headers that `rest` begins with, and leaves the type of what follows them in `type`.
/// False when one of them is cut short.
bool skipExtensionHeaders(Rest &rest, std::uint8_t &type)
{
    while (isExtensionHeader(type)) {
        if (rest.size() < shortestExtensionHeader)
            return false;
        type = rest[0];
        // 8 bits on purpose: from 31 on the length wraps.
        const auto size = static_cast<std::uint8_t>((rest[1] + 1) * 8);
        // A step of no bytes to an extension header would read this very header again, for ever.
        if (rest.size() < size || (size == 0 && isExtensionHeader(type)))
            return false;
        rest = rest.subspan(size);
    }
    return true;
}

void readIpv6(ParsedPacket &packet, Rest rest)
{
    if (rest.size() < ipv6HeaderSize)
        return;
    std::copy_n(&rest[ipv6SourceOffset], packet.srcIp6.size(), packet.srcIp6.begin());
    std::copy_n(&rest[ipv6DestinationOffset], packet.dstIp6.size(), packet.dstIp6.begin());
    std::uint8_t type = rest[ipv6NextHeaderOffset];
    rest = rest.subspan(ipv6HeaderSize);
    if (!skipExtensionHeaders(rest, type))
        return;
    packet.valid = true;
    packet.protocol = type;
    if (type == protocolTcp && rest.size() >= tcpHeaderSize)
        readTcp(packet, rest);
    else if (type == protocolUdp && rest.size() >= udpHeaderSize)
        readUdp(packet, rest);
    else
        setPayload(packet, rest);
}

} // namespace

ParsedPacket parsePacket(const std::uint8_t *data, std::size_t len)
{
    ParsedPacket packet;
    packet.raw = data;
    packet.rawLen = len;
    if (len < ipv4HeaderSize)
        return packet;
    packet.version = data[0] >> 4;
    if (packet.version == 4)
        readIpv4(packet, Rest(data, len));
    else if (packet.version == 6)
        readIpv6(packet, Rest(data, len));
    return packet;
}

} // namespace ruvo
