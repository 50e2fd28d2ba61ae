// The caps hold for a whole process, so this is a program of its own with one test.

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/log_capture.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace ruvo {
namespace {

using namespace test;

void build(std::uint8_t flags, const Bytes &payload = {})
{
    buildTcpPacket(0x0a060702, 443, 0x0a060701, 51234, 4294967295U, 7, flags, payload.data(), payload.size());
}

std::string text(const LogCapture &log)
{
    return log.lines().join(u'\n').toStdString();
}

TEST(PacketDiagnostics, writeTheFirstTwentyAcknowledgementsAndFiveSynAnswersOfAProcess)
{
    LogCapture log;

    // None of these is either, so they neither write nor count.
    for (int i = 0; i < 100; ++i) {
        build(tcpSyn);
        build(tcpRst);
        build(tcpFin | tcpPsh);
        buildUdpPacket(1, 2, 3, 4, nullptr, 0);
    }
    // Not built, so not reported.
    const Bytes tooLarge(65536);
    build(tcpAck, tooLarge);
    EXPECT_EQ(text(log), "");

    build(tcpPsh | tcpAck, {1, 2, 3});
    EXPECT_EQ(text(log), "CRITICAL [WINDOW-DEBUG] ACK to \"10.6.7.1\" : 51234 seq: 4294967295 ack: 7 window: 65535 "
                         "dataSize: 3");
    log.clear();

    build(tcpSyn | tcpAck);
    EXPECT_EQ(text(log), "INFO [TCP-SYN+ACK] \"10.6.7.2\" : 443 -> \"10.6.7.1\" : 51234 DataOffset: \"0x80\" "
                         "HeaderLen: 32 bytes Options: 12 bytes HexDump: \"01 bb c8 22 ff ff ff ff 00 00 00 07 80 12 "
                         "ff ff 83 fd 00 00 02 04 04 c4 01 03 03 08 01 01 04 02 \"");
    log.clear();

    // RST|ACK and FIN|ACK are acknowledgements too.
    build(tcpRst | tcpAck);
    build(tcpFin | tcpAck);
    EXPECT_EQ(log.linesWith("CRITICAL [WINDOW-DEBUG] ACK to").size(), 2);

    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 500; ++n) {
                build(tcpAck);
                build(tcpSyn | tcpAck);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(log.linesWith("CRITICAL [WINDOW-DEBUG] ACK to").size(), 19); // and the first
    EXPECT_EQ(log.linesWith("INFO [TCP-SYN+ACK]").size(), 4);              // and the first
    EXPECT_EQ(log.lines().size(), 19 + 4);
}

} // namespace
} // namespace ruvo
