#include "packet/packet_rewrite.h"

#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"

#include <QtEndian>

namespace ruvo {

namespace {

std::size_t ipHeaderLength(const std::uint8_t *packet)
{
    return (packet[0] & 0x0f) * std::size_t{4};
}

std::size_t tcpHeaderLength(const std::uint8_t *packet)
{
    return (packet[ipv4HeaderSize + tcpDataOffsetOffset] >> 4) * std::size_t{4};
}

std::size_t totalLength(const std::uint8_t *packet)
{
    return qFromBigEndian<quint16>(packet + ipv4TotalLengthOffset);
}

} // namespace

bool isRewritableTcp(const std::uint8_t *packet, std::size_t len)
{
    if (len < ipv4HeaderSize + tcpHeaderSize || packet[0] >> 4 != 4 || packet[ipv4ProtocolOffset] != protocolTcp)
        return false;
    // The TCP header is read at its fixed place, which an IPv4 header of less than 20 bytes would not account for.
    return ipHeaderLength(packet) + tcpHeaderLength(packet) <= totalLength(packet) && totalLength(packet) <= len
           && ipv4HeaderSize + tcpHeaderLength(packet) <= len;
}

bool rewriteTcpAddresses(std::uint8_t *packet, std::size_t len, std::uint32_t newSrcIp, std::uint16_t newSrcPort,
                         std::uint32_t newDstIp, std::uint16_t newDstPort)
{
    if (!isRewritableTcp(packet, len))
        return false;
    std::uint8_t *const tcp = packet + ipv4HeaderSize;
    const std::size_t ipHeaderLen = ipHeaderLength(packet);
    const std::size_t tcpHeaderLen = tcpHeaderLength(packet);
    const std::size_t payloadStart = ipHeaderLen + tcpHeaderLen;
    const std::size_t payloadEnd = totalLength(packet);

    // Whole words wherever a checksum is about to read them: narrower stores would stall it (see sumWords).
    qToBigEndian<quint32>(newSrcIp, packet + ipv4SourceOffset);
    qToBigEndian<quint32>(newDstIp, packet + ipv4DestinationOffset);
    qToBigEndian<quint32>(quint32{newSrcPort} << 16 | newDstPort, tcp + sourcePortOffset);

    storeChecksum(0, tcp + tcpChecksumOffset);
    storeChecksum(tcpChecksum(packet, tcp, packet + payloadStart, payloadEnd - payloadStart, tcpHeaderLen),
                  tcp + tcpChecksumOffset);
    std::uint8_t *const wordOfChecksum = packet + ipv4ChecksumOffset - 2;
    qToBigEndian<quint32>(qFromBigEndian<quint32>(wordOfChecksum) & 0xffff0000, wordOfChecksum);
    storeChecksum(ipChecksum(packet, ipHeaderLen), packet + ipv4ChecksumOffset);
    return true;
}

} // namespace ruvo
