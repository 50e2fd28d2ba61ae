// Two thousand packets that scapy built, with what it read in them (data/make_packet_corpus.py).

#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "packet/packet_rewrite.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QFile>
#include <QList>

namespace ruvo {
namespace {

using namespace test;

/// One line of the corpus. Its fields are read in order; a malformed one fails the test that reads it.
class Record
{
public:
    explicit Record(const QByteArray &line) : m_fields(line.trimmed().split(' ')) {}

    std::uint32_t decimal() { return number(10); }
    std::uint32_t hexadecimal() { return number(16); }
    Bytes bytes()
    {
        const QByteArray decoded = QByteArray::fromHex(next());
        return Bytes(decoded.begin(), decoded.end());
    }
    QByteArray next()
    {
        EXPECT_LT(m_next, m_fields.size());
        return m_fields.value(m_next++);
    }
    bool atEnd() const { return m_next == m_fields.size(); }

private:
    std::uint32_t number(int base)
    {
        bool ok = false;
        const uint value = next().toUInt(&ok, base);
        EXPECT_TRUE(ok) << "field " << m_next;
        return value;
    }

    const QList<QByteArray> m_fields;
    qsizetype m_next = 0;
};

std::vector<QByteArray> corpus()
{
    QFile file(":/packet_corpus.txt");
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    std::vector<QByteArray> lines;
    while (!file.atEnd())
        lines.push_back(file.readLine());
    EXPECT_EQ(lines.size(), 2000U);
    return lines;
}

template<typename Container>
Bytes toBytes(const Container &container)
{
    return Bytes(container.begin(), container.end());
}

Bytes inNetworkOrder(std::uint32_t ip)
{
    Bytes bytes;
    append32(bytes, ip);
    return bytes;
}

void expectFields(const ParsedPacket &packet, Record &record)
{
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.version, record.decimal());
    EXPECT_EQ(packet.protocol, record.decimal());
    if (packet.version == 4) {
        EXPECT_EQ(inNetworkOrder(packet.srcIp), record.bytes());
        EXPECT_EQ(inNetworkOrder(packet.dstIp), record.bytes());
        EXPECT_EQ(toBytes(packet.srcIp6), Bytes(16));
        EXPECT_EQ(toBytes(packet.dstIp6), Bytes(16));
    } else {
        EXPECT_EQ(packet.srcIp, 0U);
        EXPECT_EQ(packet.dstIp, 0U);
        EXPECT_EQ(toBytes(packet.srcIp6), record.bytes());
        EXPECT_EQ(toBytes(packet.dstIp6), record.bytes());
    }
    EXPECT_EQ(packet.srcPort, record.decimal());
    EXPECT_EQ(packet.dstPort, record.decimal());
    EXPECT_EQ(packet.seq, record.hexadecimal());
    EXPECT_EQ(packet.ack, record.hexadecimal());
    EXPECT_EQ(packet.tcpFlags, record.hexadecimal());
    const QByteArray offset = record.next();
    if (offset == "-")
        EXPECT_EQ(packet.payload, nullptr);
    else
        EXPECT_EQ(packet.payload, packet.raw + offset.toUInt());
    EXPECT_EQ(packet.payloadLen, record.decimal());
}

TEST(PacketCorpus, isParsedAsScapyReadsIt)
{
    for (const QByteArray &line : corpus()) {
        Record record(line);
        const Bytes bytes = record.bytes();
        const ParsedPacket packet = parsePacket(bytes.data(), bytes.size());
        EXPECT_EQ(packet.raw, bytes.data());
        EXPECT_EQ(packet.rawLen, bytes.size());
        expectFields(packet, record);
        ASSERT_FALSE(HasFailure()) << line.toStdString();
    }
}

TEST(PacketCorpus, hasTheChecksumsThatScapyPutThere)
{
    int checked = 0;
    for (const QByteArray &line : corpus()) {
        const Bytes bytes = Record(line).bytes();
        const ParsedPacket packet = parsePacket(bytes.data(), bytes.size());
        if (packet.version != 4)
            continue;
        const std::size_t ipSize = (bytes[0] & 0x0f) * std::size_t{4};
        ASSERT_EQ(ipChecksum(bytes.data(), ipSize), 0) << line.toStdString();
        const std::uint8_t *transport = bytes.data() + ipSize;
        const std::size_t headerSize = static_cast<std::size_t>(packet.payload - transport);
        if (packet.protocol == protocolTcp) {
            ASSERT_EQ(asNumber(tcpChecksum(bytes.data(), transport, packet.payload, packet.payloadLen, headerSize)),
                      get16(bytes, ipSize + 16))
                << line.toStdString();
            ++checked;
        } else if (packet.protocol == protocolUdp) {
            ASSERT_EQ(asNumber(udpChecksum(bytes.data(), transport, packet.payload, packet.payloadLen)),
                      get16(bytes, ipSize + 6))
                << line.toStdString();
            ++checked;
        }
    }
    EXPECT_GT(checked, 1000);
}

TEST(PacketCorpus, isRewrittenToWhatScapyComputes)
{
    int rewritten = 0;
    for (const QByteArray &line : corpus()) {
        Record record(line);
        Bytes bytes = record.bytes();
        for (int field = 0; field < 11; ++field)
            record.next();
        if (record.atEnd())
            continue;
        Bytes expected = bytes;
        const std::uint32_t srcIp = record.hexadecimal();
        const std::uint32_t srcPort = record.decimal();
        const std::uint32_t dstIp = record.hexadecimal();
        const std::uint32_t dstPort = record.decimal();
        put16(expected, 12, srcIp >> 16);
        put16(expected, 14, srcIp & 0xffff);
        put16(expected, 16, dstIp >> 16);
        put16(expected, 18, dstIp & 0xffff);
        put16(expected, 20, srcPort);
        put16(expected, 22, dstPort);
        put16(expected, 10, record.hexadecimal());
        put16(expected, 36, record.hexadecimal());
        EXPECT_TRUE(record.atEnd());

        EXPECT_TRUE(rewriteTcpAddresses(bytes.data(), bytes.size(), srcIp, static_cast<std::uint16_t>(srcPort), dstIp,
                                        static_cast<std::uint16_t>(dstPort)));
        EXPECT_EQ(bytes, expected);
        ASSERT_FALSE(HasFailure()) << line.toStdString();
        ++rewritten;
    }
    EXPECT_GT(rewritten, 500);
}

} // namespace
} // namespace ruvo
