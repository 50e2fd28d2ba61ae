#include "packet/packet_stamp.h"

#include "packet/packet_headers.h"

#include <QtEndian>

namespace ruvo {

namespace {

/// RFC 1624 section 3, equation 3, for a field of 32 bits: the difference that it makes to the complemented checksum.
std::uint32_t difference(std::uint32_t before, std::uint32_t after)
{
    const auto words = [](std::uint32_t value) { return (value >> 16) + (value & 0xffff); };
    return words(~before) + words(after);
}

void stampField(std::uint8_t *field, std::uint32_t value, std::uint32_t &sum)
{
    sum += difference(qFromBigEndian<quint32>(field), value);
    qToBigEndian<quint32>(value, field);
}

} // namespace

void stampTcpNumbers(PacketBytes &packet, std::uint32_t seq, std::uint32_t ack)
{
    std::uint8_t *const tcp = packet.data() + ipv4HeaderSize;
    std::uint32_t sum = static_cast<std::uint16_t>(~qFromBigEndian<quint16>(tcp + tcpChecksumOffset));
    stampField(tcp + tcpSequenceOffset, seq, sum);
    stampField(tcp + tcpAcknowledgementOffset, ack, sum);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    qToBigEndian<quint16>(static_cast<std::uint16_t>(~sum), tcp + tcpChecksumOffset);
}

} // namespace ruvo
