// Headers are put together on the stack and then appended, with the payload, to a buffer of the right size: no byte
// of the packet is written twice.

#include "packet/packet_builder.h"

#include "packet/packet_checksum.h"
#include "packet/packet_diagnostics.h"
#include "packet/packet_headers.h"

#include <QRandomGenerator>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <span>

namespace ruvo {

namespace {

constexpr std::size_t largestIpv4Packet = 65535;
constexpr std::uint32_t timeToLive = 64;
constexpr std::uint32_t dontFragment = 0x4000;
constexpr std::uint32_t tcpWindow = 65535;

/// Of every SYN. The application's side takes all three at their word.
constexpr auto synOptions = std::to_array<std::uint8_t>({
    2, 4, 0x04, 0xc4, // maximum segment size: 1220
    1, 3, 3, 8,       // window scale: shift by 8
    1, 1, 4, 2,       // selective acknowledgements permitted
});

constexpr std::size_t largestTcpHeaders = ipv4HeaderSize + tcpHeaderSize + synOptions.size();

/// A pseudo-random number for the identification field. Each thread has a generator of its own (xorshift32), as
/// builders run on all workers at once and one shared state would be fought over with every packet.
std::uint16_t nextIdentification()
{
    thread_local std::uint32_t s_state = 0;
    std::uint32_t state = s_state;
    if (state == 0) // not seeded yet: the sequence itself never comes to 0
        state = QRandomGenerator::global()->generate() | 1;
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    s_state = state;
    return static_cast<std::uint16_t>(state);
}

/// Writes a header as the RFCs draw it, in words of 32 bits. Whole words, as the checksums read them at once: see
/// sumWords.
void writeWords(std::uint8_t *header, std::span<const std::uint32_t> words)
{
    for (const std::uint32_t word : words) {
        qToBigEndian<quint32>(word, header);
        header += sizeof word;
    }
}

constexpr std::uint32_t twoFields(std::uint32_t left, std::uint32_t right)
{
    return left << 16 | right;
}

void writeIpv4Header(std::uint8_t *header, std::uint8_t protocol, std::size_t packetSize, std::uint32_t srcIp,
                     std::uint32_t dstIp)
{
    constexpr std::uint32_t versionAndHeaderSize = 0x4500; // version 4, 5 words, type of service 0
    const std::uint32_t words[] = {
        twoFields(versionAndHeaderSize, static_cast<std::uint32_t>(packetSize)),
        twoFields(nextIdentification(), dontFragment),
        twoFields(timeToLive << 8 | protocol, 0), // the checksum, for now
        srcIp,
        dstIp,
    };
    writeWords(header, words);
    storeChecksum(ipChecksum(header, ipv4HeaderSize), header + ipv4ChecksumOffset);
}

PacketBytes join(std::span<const std::uint8_t> headers, const std::uint8_t *payload, std::size_t payloadLen)
{
    PacketBytes packet;
    packet.reserve(headers.size() + payloadLen);
    packet.insert(packet.end(), headers.begin(), headers.end());
    packet.insert(packet.end(), payload, payload + payloadLen);
    return packet;
}

} // namespace

PacketBytes buildTcpPacket(std::uint32_t srcIp, std::uint16_t srcPort, std::uint32_t dstIp, std::uint16_t dstPort,
                           std::uint32_t seq, std::uint32_t ack, std::uint8_t flags, const std::uint8_t *payload,
                           std::size_t payloadLen)
{
    const std::size_t optionsSize = flags & tcpSyn ? synOptions.size() : 0;
    const std::size_t headerSize = tcpHeaderSize + optionsSize;
    const std::size_t headersSize = ipv4HeaderSize + headerSize;
    if (payloadLen > largestIpv4Packet - headersSize)
        return {};

    std::array<std::uint8_t, largestTcpHeaders> headers; // the first `headersSize` bytes are written below
    std::uint8_t *const ip = headers.data();
    std::uint8_t *const tcp = ip + ipv4HeaderSize;
    writeIpv4Header(ip, protocolTcp, headersSize + payloadLen, srcIp, dstIp);
    const std::uint32_t dataOffset = static_cast<std::uint32_t>(headerSize / 4) << 12;
    const std::uint32_t words[] = {
        twoFields(srcPort, dstPort),
        seq,
        ack,
        twoFields(dataOffset | flags, tcpWindow),
        twoFields(0, 0), // the checksum, for now, and the urgent pointer
    };
    writeWords(tcp, words);
    std::copy_n(synOptions.data(), optionsSize, tcp + tcpHeaderSize);
    storeChecksum(tcpChecksum(ip, tcp, payload, payloadLen, headerSize), tcp + tcpChecksumOffset);

    reportBuiltTcpPacket(ip, tcp, headerSize, payloadLen);
    return join({ip, headersSize}, payload, payloadLen);
}

PacketBytes buildUdpPacket(std::uint32_t srcIp, std::uint16_t srcPort, std::uint32_t dstIp, std::uint16_t dstPort,
                           const std::uint8_t *payload, std::size_t payloadLen)
{
    constexpr std::size_t headersSize = ipv4HeaderSize + udpHeaderSize;
    if (payloadLen > largestIpv4Packet - headersSize)
        return {};

    std::array<std::uint8_t, headersSize> headers;
    std::uint8_t *const ip = headers.data();
    std::uint8_t *const udp = ip + ipv4HeaderSize;
    writeIpv4Header(ip, protocolUdp, headersSize + payloadLen, srcIp, dstIp);
    const std::uint32_t words[] = {
        twoFields(srcPort, dstPort),
        twoFields(static_cast<std::uint32_t>(udpHeaderSize + payloadLen), 0), // the checksum, for now
    };
    writeWords(udp, words);
    storeChecksum(udpChecksum(ip, udp, payload, payloadLen), udp + udpChecksumOffset);
    return join(headers, payload, payloadLen);
}

} // namespace ruvo
