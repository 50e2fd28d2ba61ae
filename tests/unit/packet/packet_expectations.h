#pragma once

// What the tests of the packet parser share.

#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

namespace ruvo::test {

inline ParsedPacket parse(const Bytes &bytes)
{
    return parsePacket(bytes.data(), bytes.size());
}

/// "No transport fields": what the parser leaves as it was zeroed.
inline void expectNoTransport(const ParsedPacket &packet)
{
    EXPECT_EQ(packet.srcPort, 0);
    EXPECT_EQ(packet.dstPort, 0);
    EXPECT_EQ(packet.seq, 0U);
    EXPECT_EQ(packet.ack, 0U);
    EXPECT_EQ(packet.tcpFlags, 0);
}

inline void expectNoPayload(const ParsedPacket &packet)
{
    EXPECT_EQ(packet.payload, nullptr);
    EXPECT_EQ(packet.payloadLen, 0U);
}

inline void expectPayloadAt(const ParsedPacket &packet, std::size_t offset)
{
    ASSERT_NE(packet.payload, nullptr);
    EXPECT_EQ(packet.payload, packet.raw + offset);
    EXPECT_EQ(packet.payloadLen, packet.rawLen - offset);
}

inline Bytes tcpSegment(const Bytes &payload = {1, 2, 3})
{
    return referenceTcp({}, 0x89abcdef, 0xfedcba98, 0x18, {}, payload);
}

inline void expectTcpFields(const ParsedPacket &packet)
{
    EXPECT_TRUE(packet.valid);
    EXPECT_EQ(packet.protocol, protocolTcp);
    EXPECT_EQ(packet.srcPort, Endpoints().srcPort);
    EXPECT_EQ(packet.dstPort, Endpoints().dstPort);
    EXPECT_EQ(packet.seq, 0x89abcdefU);
    EXPECT_EQ(packet.ack, 0xfedcba98U);
    EXPECT_EQ(packet.tcpFlags, 0x18);
}

} // namespace ruvo::test
