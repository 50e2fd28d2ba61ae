// When the event of a session is set: as the driver does it, for packets that come in, whether a reader has found
// nothing before or not.

#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <gtest/gtest.h>

#include <optional>

namespace ruvo::test {

namespace {

constexpr USHORT somePort = 4000;

class WintunReadEventTest : public WintunSessionTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(WintunSessionTest::SetUp());
        m_event = m_wintun.readWaitEvent(m_session);
        m_socket.emplace(nearAddress);
    }

    void packetComes() { ASSERT_TRUE(m_socket->sendTo(farAddress, somePort, "hello")); }
    DWORD wait(DWORD timeoutMs = 5000) { return WaitForSingleObject(m_event, timeoutMs); }
    bool takesOne()
    {
        DWORD size = 0;
        BYTE *packet = m_wintun.receive(m_session, &size);
        if (packet)
            m_wintun.release(m_session, packet);
        return packet != nullptr;
    }

    HANDLE m_event = nullptr;
    std::optional<UdpSocket> m_socket;
};

constexpr DWORD set = WAIT_OBJECT_0;
constexpr DWORD notSet = WAIT_TIMEOUT;
constexpr DWORD longEnoughMs = 200; // a packet's event may come 10 ms late

} // namespace

TEST_F(WintunReadEventTest, isSetForAProgramThatWaitsBeforeItsFirstReceive)
{
    packetComes();
    EXPECT_EQ(wait(), set);
    EXPECT_TRUE(takesOne());
}

TEST_F(WintunReadEventTest, isSetForAProgramThatHasTakenOneOfTwo)
{
    packetComes();
    ASSERT_EQ(wait(), set);
    packetComes();
    EXPECT_TRUE(takesOne());
    EXPECT_EQ(wait(), set);
    EXPECT_TRUE(takesOne());
}

TEST_F(WintunReadEventTest, isSetAgainForAProgramThatHasTakenNothing)
{
    for (int i = 0; i < 3; ++i) {
        packetComes();
        EXPECT_EQ(wait(), set);
    }
}

TEST_F(WintunReadEventTest, isSetForThePacketAfterOneThatWasTakenWithoutALookBehindIt)
{
    for (int i = 0; i < 3; ++i) {
        packetComes();
        ASSERT_EQ(wait(), set);
        ASSERT_TRUE(takesOne());
    }
}

// Which would hide that a program waits for what it could take.
TEST_F(WintunReadEventTest, isNotSetAgainForWhatLiesThereUntaken)
{
    packetComes();
    packetComes();
    ASSERT_EQ(wait(), set);
    while (wait(longEnoughMs) == set) // the second may have come just behind it
        ;
    EXPECT_TRUE(takesOne());
    EXPECT_EQ(wait(longEnoughMs), notSet);
    EXPECT_TRUE(takesOne());
}

TEST_F(WintunReadEventTest, isNotSetWithoutAPacket)
{
    EXPECT_EQ(wait(longEnoughMs), notSet);
    EXPECT_FALSE(takesOne());
    EXPECT_EQ(wait(longEnoughMs), notSet);
}

TEST_F(WintunReadEventTest, isSetWhenTheAdapterGoesUnderAProgramThatHasTakenNothing)
{
    packetComes();
    ASSERT_EQ(wait(), set);
    m_wintun.closeAdapter(m_adapter);
    m_adapter = nullptr;
    EXPECT_EQ(wait(), set);
}

} // namespace ruvo::test
