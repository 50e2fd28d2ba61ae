#pragma once

// A second, slow reading of the packet formats for the tests to compare with: bytes are put down one by one, words
// are added one by one with the carry brought around at once, numbers are big-endian throughout. It shares nothing
// with the product.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace ruvo::test {

using Bytes = std::vector<std::uint8_t>;

inline void append16(Bytes &to, std::uint32_t value)
{
    to.push_back(static_cast<std::uint8_t>(value >> 8 & 0xff));
    to.push_back(static_cast<std::uint8_t>(value & 0xff));
}

inline void append32(Bytes &to, std::uint32_t value)
{
    append16(to, value >> 16);
    append16(to, value & 0xffff);
}

inline void put16(Bytes &to, std::size_t offset, std::uint32_t value)
{
    to.at(offset) = static_cast<std::uint8_t>(value >> 8 & 0xff);
    to.at(offset + 1) = static_cast<std::uint8_t>(value & 0xff);
}

inline std::uint32_t get16(const Bytes &from, std::size_t offset)
{
    return static_cast<std::uint32_t>(from.at(offset) << 8 | from.at(offset + 1));
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

/// `size` bytes that look random and are the same in every run.
inline Bytes patternBytes(std::size_t size, std::uint32_t seed = 1)
{
    Bytes bytes(size);
    std::uint32_t state = seed * 2654435761U + 12345;
    for (std::uint8_t &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

/// RFC 1071, section 1: the 16-bit one's complement of the one's-complement sum. As a number whose most significant
/// byte is the first one in the packet.
inline std::uint16_t referenceChecksum(Bytes bytes)
{
    if (bytes.size() % 2 != 0)
        bytes.push_back(0);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        sum += get16(bytes, i);
        if (sum > 0xffff)
            sum = (sum & 0xffff) + 1;
    }
    return static_cast<std::uint16_t>(0xffff - sum);
}

/// RFC 793, section 3.1 and RFC 768: source, destination, zero, protocol, length of header and data.
inline Bytes referencePseudoHeader(std::uint32_t src, std::uint32_t dst, std::uint8_t protocol, std::size_t length)
{
    Bytes bytes;
    append32(bytes, src);
    append32(bytes, dst);
    append16(bytes, protocol);
    append16(bytes, static_cast<std::uint32_t>(length));
    return bytes;
}

/// What the product's functions return lies in memory as in the packet; this reads it as a number.
inline std::uint16_t asNumber(std::uint16_t checksum)
{
    std::uint8_t bytes[2];
    std::memcpy(bytes, &checksum, sizeof bytes);
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

struct Endpoints
{
    std::uint32_t srcIp = 0x0a060701; // 10.6.7.1
    std::uint16_t srcPort = 40001;
    std::uint32_t dstIp = 0xc6336407; // 198.51.100.7
    std::uint16_t dstPort = 443;
};

/// An IPv4 packet around `transport`, whose own checksum is already right.
inline Bytes referenceIpv4(const Endpoints &ends, std::uint8_t protocol, const Bytes &transport, std::uint16_t id,
                           const Bytes &options = {})
{
    Bytes header = {static_cast<std::uint8_t>(0x45 + options.size() / 4), 0};
    append16(header, static_cast<std::uint32_t>(20 + options.size() + transport.size()));
    append16(header, id);
    append16(header, 0x4000);
    header.push_back(64);
    header.push_back(protocol);
    append16(header, 0);
    append32(header, ends.srcIp);
    append32(header, ends.dstIp);
    header = concat({header, options});
    put16(header, 10, referenceChecksum(header));
    return concat({header, transport});
}

inline Bytes referenceTcp(const Endpoints &ends, std::uint32_t seq, std::uint32_t ack, std::uint8_t flags,
                          const Bytes &options, const Bytes &payload)
{
    Bytes header;
    append16(header, ends.srcPort);
    append16(header, ends.dstPort);
    append32(header, seq);
    append32(header, ack);
    header.push_back(static_cast<std::uint8_t>((5 + options.size() / 4) * 16));
    header.push_back(flags);
    append16(header, 65535);
    append16(header, 0);
    append16(header, 0);
    Bytes segment = concat({header, options, payload});
    put16(segment, 16,
          referenceChecksum(concat({referencePseudoHeader(ends.srcIp, ends.dstIp, 6, segment.size()), segment})));
    return segment;
}

inline Bytes referenceTcpPacket(const Endpoints &ends, std::uint32_t seq, std::uint32_t ack, std::uint8_t flags,
                                const Bytes &options, const Bytes &payload, std::uint16_t id)
{
    return referenceIpv4(ends, 6, referenceTcp(ends, seq, ack, flags, options, payload), id);
}

inline Bytes referenceUdpPacket(const Endpoints &ends, const Bytes &payload, std::uint16_t id)
{
    Bytes datagram;
    append16(datagram, ends.srcPort);
    append16(datagram, ends.dstPort);
    append16(datagram, static_cast<std::uint32_t>(8 + payload.size()));
    append16(datagram, 0);
    datagram = concat({datagram, payload});
    const std::uint16_t checksum =
        referenceChecksum(concat({referencePseudoHeader(ends.srcIp, ends.dstIp, 17, datagram.size()), datagram}));
    put16(datagram, 6, checksum == 0 ? 0xffff : checksum);
    return referenceIpv4(ends, 17, datagram, id);
}

/// The options that the engine puts into a SYN.
inline Bytes synOptions()
{
    return {0x02, 0x04, 0x04, 0xc4, 0x01, 0x03, 0x03, 0x08, 0x01, 0x01, 0x04, 0x02};
}

} // namespace ruvo::test
