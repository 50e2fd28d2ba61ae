// The way out: what the program has finished is sent by a thread of the session's own.

#include "namespace/bench_files.h"
#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr USHORT somePort = 4000;

std::string counter(const std::string &name, int value)
{
    return '"' + name + "\":" + std::to_string(value) + ',';
}

} // namespace

// A program that had to wait for Linux with each packet would find the ring empty again each time.
TEST_F(WintunSessionTest, isFilledByAProgramThatSendsFasterThanItIsDrained)
{
    m_wintun.endSession(m_session);
    clearBenchFolder();
    m_session = m_wintun.startSession(m_adapter, WINTUN_MIN_RING_CAPACITY);
    ASSERT_TRUE(m_session);
    constexpr int attempts = 2000;
    const auto packet = udpPacket(farAddress, 0x0A0900FF, {somePort, somePort}, std::string(59972, 'x'));
    constexpr std::size_t headers = 28; // what it carries does not matter, and would take time
    int refused = 0;
    for (int i = 0; i < attempts; ++i) {
        BYTE *place = m_wintun.allocate(m_session, static_cast<DWORD>(packet.size()));
        if (!place) {
            ASSERT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
            ++refused;
            continue;
        }
        std::memcpy(place, packet.data(), headers);
        m_wintun.send(m_session, place);
    }
    m_wintun.endSession(m_session);
    m_session = nullptr;
    EXPECT_GT(refused, 0);
    EXPECT_GE(attempts - refused, 2); // so many it has room for
    EXPECT_THAT(
        journal("WintunEndSession"),
        ElementsAre(AllOf(HasSubstr(counter("sent", attempts - refused)), HasSubstr(counter("refused-full", refused)),
                          HasSubstr(R"("dropped":0,)"), HasSubstr(R"("unsent":false)"))));
    EXPECT_THAT(journal("misuse"), IsEmpty());
}

TEST_F(WintunSessionTest, sendsWhatAProgramFinishesWhileTheThreadSleeps)
{
    const UdpSocket socket(nearAddress);
    for (const std::string text : {"one", "two", "three"}) {
        sendWhole(udpPacket(farAddress, nearAddress, {somePort, socket.port()}, text));
        EXPECT_EQ(socket.receive(), text);
    }
}

TEST_F(WintunSessionTest, handsOutRoomForNoBytesAndDropsIt)
{
    clearBenchFolder();
    BYTE *nothing = m_wintun.allocate(m_session, 0);
    ASSERT_TRUE(nothing);
    const auto packet = udpPacket(farAddress, 0x0A0900FF, {somePort, somePort}, "behind it");
    sendWhole(packet);
    m_wintun.send(m_session, nothing);
    m_wintun.endSession(m_session);
    m_session = nullptr;
    EXPECT_THAT(journal("WintunEndSession"),
                ElementsAre(AllOf(HasSubstr(counter("sent", 1)), HasSubstr(counter("dropped", 1)))));
    EXPECT_THAT(journal("misuse"), IsEmpty());
}

TEST_F(WintunSessionTest, hasNoRoomForMoreThanAPacketMayHave)
{
    EXPECT_EQ(m_wintun.allocate(m_session, WINTUN_MAX_IP_PACKET_SIZE + 1), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_THAT(journal("misuse"),
                ElementsAre(AllOf(HasSubstr("WintunAllocateSendPacket"), HasSubstr("larger than a packet can be"))));
}

} // namespace ruvo::test
