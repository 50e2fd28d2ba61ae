#include "packet/tcp_segment.h"

#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"

#include <QtEndian>

#include <algorithm>

namespace ruvo {

namespace {

// RFC 9293 section 3.2, RFC 7323 section 2.2.
constexpr std::uint8_t endOfOptions = 0;
constexpr std::uint8_t noOperation = 1;
constexpr std::uint8_t maximumSegmentSize = 2;
constexpr std::uint8_t windowScale = 3;
constexpr std::size_t maximumSegmentSizeLength = 4;
constexpr std::size_t windowScaleLength = 3;
/// RFC 7323 section 2.3: a larger one counts as this.
constexpr std::uint8_t maxWindowShift = 14;

std::span<const std::uint8_t> addressesOf(const ParsedPacket &packet)
{
    const std::span raw(packet.raw, packet.rawLen);
    return packet.version == 4 ? raw.subspan(ipv4SourceOffset, 8) : raw.subspan(ipv6SourceOffset, 32);
}

} // namespace

std::optional<TcpSegment> readTcpSegment(const ParsedPacket &packet)
{
    if (!packet.transport || packet.protocol != protocolTcp)
        return std::nullopt;
    const std::span<const std::uint8_t> bytes(packet.transport, packet.raw + packet.rawLen);
    const std::size_t headerSize = (bytes[tcpDataOffsetOffset] >> 4) * std::size_t{4};
    if (headerSize < tcpHeaderSize || headerSize > bytes.size() || !isTcpChecksumRight(addressesOf(packet), bytes)) {
        return std::nullopt;
    }
    return TcpSegment{
        .seq = packet.seq,
        .ack = packet.ack,
        .flags = packet.tcpFlags,
        .window = qFromBigEndian<quint16>(&bytes[tcpWindowOffset]),
        .options = bytes.subspan(tcpHeaderSize, headerSize - tcpHeaderSize),
        .payload = bytes.subspan(headerSize),
    };
}

TcpSynOptions readSynOptions(std::span<const std::uint8_t> options)
{
    TcpSynOptions found;
    while (!options.empty() && options[0] != endOfOptions) {
        if (options[0] == noOperation) {
            options = options.subspan(1);
            continue;
        }
        if (options.size() < 2 || options[1] < 2 || options[1] > options.size())
            break;
        const std::span<const std::uint8_t> option = options.first(options[1]);
        if (option[0] == maximumSegmentSize && option.size() == maximumSegmentSizeLength)
            found.maximumSegmentSize = qFromBigEndian<quint16>(&option[2]);
        else if (option[0] == windowScale && option.size() == windowScaleLength)
            found.windowShift = std::min(option[2], maxWindowShift);
        options = options.subspan(option.size());
    }
    return found;
}

} // namespace ruvo
