// Rewriting stays within the packet and either leaves it untouched or changes nothing but addresses, ports and
// checksums; the checksums are those of a slow reference. The builders make of the same bytes what it makes.
//
// Input: 12 bytes of new addresses and ports, then the packet.

#include "fuzz_check.h"
#include "packet/packet_builder.h"
#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "packet/packet_rewrite.h"
#include "unit/packet/packet_reference.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace {

using ruvo::test::Bytes;
using ruvo::test::Endpoints;

std::uint32_t get32(const Bytes &from, std::size_t offset)
{
    return ruvo::test::get16(from, offset) << 16 | ruvo::test::get16(from, offset + 2);
}

Endpoints readEnds(const Bytes &bytes)
{
    return {.srcIp = get32(bytes, 0),
            .srcPort = static_cast<std::uint16_t>(ruvo::test::get16(bytes, 4)),
            .dstIp = get32(bytes, 6),
            .dstPort = static_cast<std::uint16_t>(ruvo::test::get16(bytes, 10))};
}

bool rewrite(Bytes &packet, const Endpoints &ends)
{
    return ruvo::rewriteTcpAddresses(packet.data(), packet.size(), ends.srcIp, ends.srcPort, ends.dstIp,
                                     ends.dstPort);
}

Bytes part(const Bytes &bytes, std::size_t from, std::size_t to)
{
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

/// The packet as it has to be after rewriting, put together byte by byte.
Bytes expectedPacket(Bytes packet, const Endpoints &ends)
{
    using namespace ruvo::test;
    const std::size_t ipSize = (packet.at(0) & 0x0fU) * 4;
    const std::size_t tcpSize = (packet.at(32) >> 4U) * 4;
    const std::size_t end = get16(packet, 2);
    put16(packet, 12, ends.srcIp >> 16);
    put16(packet, 14, ends.srcIp & 0xffff);
    put16(packet, 16, ends.dstIp >> 16);
    put16(packet, 18, ends.dstIp & 0xffff);
    put16(packet, 20, ends.srcPort);
    put16(packet, 22, ends.dstPort);
    put16(packet, 36, 0);
    const std::size_t payload = ipSize + tcpSize;
    put16(packet, 36,
          referenceChecksum(concat({referencePseudoHeader(ends.srcIp, ends.dstIp, 6, tcpSize + end - payload),
                                    part(packet, 20, 20 + tcpSize), part(packet, payload, end)})));
    put16(packet, 10, 0);
    put16(packet, 10, referenceChecksum(part(packet, 0, ipSize)));
    return packet;
}

std::uint16_t identificationOf(const Bytes &packet)
{
    return static_cast<std::uint16_t>(ruvo::test::get16(packet, 4));
}

void checkBuilders(const Endpoints &ends, const Bytes &payload)
{
    using namespace ruvo;
    const auto flags = static_cast<std::uint8_t>(ends.srcPort);
    const std::uint32_t seq = ends.dstIp;
    const std::uint32_t ack = ends.srcIp;
    const Bytes options = flags & tcpSyn ? test::synOptions() : Bytes();
    const Bytes tcp = buildTcpPacket(ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort, seq, ack, flags,
                                     payload.data(), payload.size());
    FUZZ_CHECK(tcp == test::referenceTcpPacket(ends, seq, ack, flags, options, payload, identificationOf(tcp)));
    const Bytes udp =
        buildUdpPacket(ends.srcIp, ends.srcPort, ends.dstIp, ends.dstPort, payload.data(), payload.size());
    FUZZ_CHECK(udp == test::referenceUdpPacket(ends, payload, identificationOf(udp)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::size_t endsSize = 12;
    if (size < endsSize)
        return 0;
    const Bytes input(data, data + size);
    const Endpoints ends = readEnds(input);
    const Bytes original = part(input, endsSize, size);

    Bytes packet = original;
    packet.shrink_to_fit(); // the sanitizer sees each access behind it
    if (!rewrite(packet, ends))
        FUZZ_CHECK(packet == original);
    else
        FUZZ_CHECK(packet == expectedPacket(original, ends));
    if (original.size() < 4096)
        checkBuilders(ends, original);
    return 0;
}
