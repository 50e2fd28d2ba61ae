#pragma once

// Reading the packets that the engine writes, and the bytes that go through it in the tests.

#include "packet/packet_headers.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace ruvo::test {

/// Byte number `position` of a direction's stream: whatever is lost, doubled or moved shows.
inline std::uint8_t streamByte(std::size_t position)
{
    const std::uint32_t mixed = static_cast<std::uint32_t>(position) * 2654435761U;
    return static_cast<std::uint8_t>(mixed >> 24 ^ mixed >> 13);
}

/// `size` bytes of a stream from `position` on.
inline Bytes streamBytes(std::size_t position, std::size_t size)
{
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = streamByte(position + i);
    return bytes;
}

/// One packet that the engine wrote, all of whose fixed fields are as they have to be.
struct WrittenPacket
{
    std::uint8_t flags = 0;
    std::uint32_t seq = 0;
    std::uint32_t ack = 0;
    Bytes options;
    Bytes payload;
};

inline std::uint32_t get32(const Bytes &from, std::size_t offset)
{
    return get16(from, offset) << 16 | get16(from, offset + 2);
}

/// The engine's end of the connections here, as the application sees it, and the application's. The destination of
/// what the engine writes is the application.
inline constexpr Endpoints toApplication{0xc6336407, 443, 0x0a060701, 40001};

/// Reads a packet, and verifies on the way what is the same in all of them: addresses, lengths, both checksums, the
/// window.
inline WrittenPacket readWritten(std::span<const std::uint8_t> written)
{
    const Bytes bytes(written.begin(), written.end());
    if (bytes.size() < ipv4HeaderSize + tcpHeaderSize) {
        ADD_FAILURE() << "a packet of " << bytes.size() << " bytes";
        return {};
    }
    const Bytes ip(bytes.begin(), bytes.begin() + ipv4HeaderSize);
    const Bytes tcp(bytes.begin() + ipv4HeaderSize, bytes.end());
    EXPECT_EQ(ip[0], 0x45);
    EXPECT_EQ(get16(ip, ipv4TotalLengthOffset), bytes.size());
    EXPECT_EQ(ip[ipv4ProtocolOffset], protocolTcp);
    EXPECT_EQ(referenceChecksum(ip), 0) << "the IP header's checksum is wrong";
    EXPECT_EQ(get32(ip, ipv4SourceOffset), toApplication.srcIp);
    EXPECT_EQ(get32(ip, ipv4DestinationOffset), toApplication.dstIp);
    EXPECT_EQ(get16(tcp, sourcePortOffset), toApplication.srcPort);
    EXPECT_EQ(get16(tcp, destinationPortOffset), toApplication.dstPort);
    EXPECT_EQ(get16(tcp, tcpWindowOffset), 65535U);
    const Bytes pseudoHeader = referencePseudoHeader(toApplication.srcIp, toApplication.dstIp, 6, tcp.size());
    EXPECT_EQ(referenceChecksum(concat({pseudoHeader, tcp})), 0) << "the TCP checksum is wrong";

    const std::size_t headerSize = (tcp[tcpDataOffsetOffset] >> 4) * std::size_t{4};
    if (headerSize < tcpHeaderSize || headerSize > tcp.size()) {
        ADD_FAILURE() << "a TCP header of " << headerSize << " bytes";
        return {};
    }
    const auto behindHeader = tcp.begin() + static_cast<std::ptrdiff_t>(headerSize);
    return {
        .flags = tcp[tcpFlagsOffset],
        .seq = get32(tcp, tcpSequenceOffset),
        .ack = get32(tcp, tcpAcknowledgementOffset),
        .options = {tcp.begin() + tcpHeaderSize, behindHeader},
        .payload = {behindHeader, tcp.end()},
    };
}

inline std::string flagNames(std::uint8_t flags)
{
    constexpr struct
    {
        std::uint8_t flag;
        const char *name;
    } names[] = {{tcpFin, "FIN"}, {tcpSyn, "SYN"}, {tcpRst, "RST"}, {tcpPsh, "PSH"}, {tcpAck, "ACK"}};
    std::string text;
    for (const auto &[flag, name] : names) {
        if (flags & flag)
            text += (text.empty() ? "" : "|") + std::string(name);
    }
    return text;
}

} // namespace ruvo::test
