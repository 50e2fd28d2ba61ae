#include "packet/packet_diagnostics.h"

#include "common/capped_log.h"
#include "common/ipv4.h"
#include "common/log_category.h"
#include "packet/packet_headers.h"

#include <QtEndian>

namespace ruvo {

namespace {

CappedLog s_acknowledgements(20);
CappedLog s_synAnswers(5);

QString twoHexDigits(const char *format, std::uint8_t byte)
{
    return QString::fromLatin1(format).arg(byte, 2, 16, QChar(u'0'));
}

QString hexDump(const std::uint8_t *bytes, std::size_t size)
{
    QString dump;
    for (std::size_t i = 0; i < size; ++i)
        dump += twoHexDigits("%1 ", bytes[i]);
    return dump;
}

QString sourceOf(const std::uint8_t *ip)
{
    return formatIpv4(qFromBigEndian<quint32>(ip + ipv4SourceOffset));
}

QString destinationOf(const std::uint8_t *ip)
{
    return formatIpv4(qFromBigEndian<quint32>(ip + ipv4DestinationOffset));
}

quint16 sourcePortOf(const std::uint8_t *tcp)
{
    return qFromBigEndian<quint16>(tcp + sourcePortOffset);
}

quint16 destinationPortOf(const std::uint8_t *tcp)
{
    return qFromBigEndian<quint16>(tcp + destinationPortOffset);
}

void logAcknowledgement(const std::uint8_t *ip, const std::uint8_t *tcp, std::size_t payloadLen)
{
    qCCritical(lcRuvod) << "[WINDOW-DEBUG] ACK to" << destinationOf(ip) << ":" << destinationPortOf(tcp)
                        << "seq:" << qFromBigEndian<quint32>(tcp + tcpSequenceOffset)
                        << "ack:" << qFromBigEndian<quint32>(tcp + tcpAcknowledgementOffset)
                        << "window:" << qFromBigEndian<quint16>(tcp + tcpWindowOffset) << "dataSize:" << payloadLen;
}

void logSynAnswer(const std::uint8_t *ip, const std::uint8_t *tcp, std::size_t tcpHeaderLen)
{
    qCInfo(lcRuvod) << "[TCP-SYN+ACK]" << sourceOf(ip) << ":" << sourcePortOf(tcp) << "->" << destinationOf(ip) << ":"
                    << destinationPortOf(tcp) << "DataOffset:" << twoHexDigits("0x%1", tcp[tcpDataOffsetOffset])
                    << "HeaderLen:" << tcpHeaderLen << "bytes"
                    << "Options:" << tcpHeaderLen - tcpHeaderSize << "bytes"
                    << "HexDump:" << hexDump(tcp, tcpHeaderLen);
}

} // namespace

void reportBuiltTcpPacket(const std::uint8_t *ip, const std::uint8_t *tcp, std::size_t tcpHeaderLen,
                          std::size_t payloadLen)
{
    const std::uint8_t flags = tcp[tcpFlagsOffset];
    if (!(flags & tcpAck))
        return;
    if (flags & tcpSyn) {
        if (s_synAnswers.take())
            logSynAnswer(ip, tcp, tcpHeaderLen);
    } else if (s_acknowledgements.take()) {
        logAcknowledgement(ip, tcp, payloadLen);
    }
}

} // namespace ruvo
