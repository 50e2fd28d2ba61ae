// Packets into the ring: how long a full one is tried again, and what is given up.

#include "netcfg/wintun_adapter.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_wintun.h"
#include "windows/support/call_journal.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <numeric>
#include <optional>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::FakeWintun;

constexpr std::uint8_t packet[] = {0x45, 1, 2, 3, 4};
const QByteArray packetBytes(reinterpret_cast<const char *>(packet), sizeof(packet));

class WintunAdapterSend : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_adapter.load(FakeWintun::path));
        ASSERT_TRUE(m_adapter.createAdapter(L"tun", L"SocksTunnel"));
        ASSERT_TRUE(m_adapter.startSession(0x20000));
        m_sleeps.watch<IMPORT(Sleep)>([](DWORD) {});
        m_setTimer.emplace([this](HANDLE, const LARGE_INTEGER *due, auto...) {
            m_pauses.push_back(std::chrono::microseconds(-due->QuadPart / 10));
            return TRUE;
        });
        // Nothing else waits here.
        m_wait.emplace([](HANDLE, DWORD) -> DWORD { return WAIT_OBJECT_0; });
        m_fake.clear();
        m_log.clear();
    }

    bool send() { return m_adapter.sendPacket(packet, sizeof(packet)); }
    bool trySend() { return m_adapter.trySendPacket(packet, sizeof(packet)); }
    qsizetype attempts() const { return m_fake.count("WintunAllocateSendPacket 5e55 5"); }

    test::LogCapture m_log;
    FakeWintun m_fake;
    WintunAdapter m_adapter;
    /// How long each pause was to last; none of them takes any time.
    std::vector<std::chrono::microseconds> m_pauses;
    /// What Windows rounds up to its tick.
    test::CallJournal m_sleeps;

private:
    std::optional<test::ImportRedirection<IMPORT(SetWaitableTimer)>> m_setTimer;
    std::optional<test::ImportRedirection<IMPORT(WaitForSingleObject)>> m_wait;
};

TEST_F(WintunAdapterSend, copiesThePacketIntoTheRing)
{
    EXPECT_TRUE(send());
    EXPECT_EQ(m_fake.calls(), (QStringList{"WintunAllocateSendPacket 5e55 5", "WintunSendPacket 5e55"}));
    EXPECT_EQ(m_fake.sent(), QByteArrayList{packetBytes});
    EXPECT_TRUE(m_pauses.empty());
}

TEST_F(WintunAdapterSend, letsThePacketBeWrittenInPlace)
{
    std::uint8_t *place = m_adapter.allocatePacket(sizeof(packet));
    ASSERT_EQ(place, m_fake.allocated());
    std::memcpy(place, packet, sizeof(packet));
    m_adapter.sendAllocated(place);
    EXPECT_EQ(m_fake.sent(), QByteArrayList{packetBytes});
}

TEST_F(WintunAdapterSend, triesAFullRingAtOnceThenAfterOneThenAfterTwoMilliseconds)
{
    m_fake.allocateFailures = 4;
    EXPECT_TRUE(send());
    EXPECT_EQ(attempts(), 5);
    EXPECT_EQ(m_pauses, (std::vector<std::chrono::microseconds>{1ms, 2ms, 2ms}));
    EXPECT_EQ(m_fake.sent(), QByteArrayList{packetBytes});
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSend, stillSendsAtTheFiftiethAttempt)
{
    m_fake.allocateFailures = 49;
    EXPECT_TRUE(send());
    EXPECT_EQ(attempts(), 50);
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSend, givesUpAfterTheFiftiethFailure)
{
    m_fake.allocateFailures = -1;
    EXPECT_FALSE(send());
    EXPECT_EQ(attempts(), 50);
    EXPECT_EQ(m_pauses.size(), 48u);
    EXPECT_EQ(std::count(m_pauses.begin(), m_pauses.end(), 1ms), 1);
    EXPECT_EQ(std::accumulate(m_pauses.begin(), m_pauses.end(), std::chrono::microseconds(0)), 95ms);
    EXPECT_TRUE(m_sleeps.lines().empty()) << "each would last as long as a tick of Windows' clock, up to 15.6 ms";
    EXPECT_EQ(m_log.lines(),
              QStringList{"WARNING [WINTUN] Send buffer full after 50 retries, dropping packet size= 5"});
    EXPECT_EQ(m_fake.sent(), QByteArrayList());
}

TEST_F(WintunAdapterSend, takesAnEndingSessionForAFullRing)
{
    m_fake.allocateFailures = -1;
    m_fake.allocateError = ERROR_HANDLE_EOF;
    EXPECT_FALSE(send());
    EXPECT_EQ(attempts(), 50);
    EXPECT_EQ(m_log.lines(),
              QStringList{"WARNING [WINTUN] Send buffer full after 50 retries, dropping packet size= 5"});
}

TEST_F(WintunAdapterSend, triesNothingAgainAfterAnyOtherError)
{
    m_fake.allocateFailures = -1;
    m_fake.allocateError = ERROR_INVALID_PARAMETER;
    EXPECT_FALSE(send());
    EXPECT_EQ(attempts(), 1);
    EXPECT_TRUE(m_pauses.empty());
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to allocate send packet: 87"});
}

TEST_F(WintunAdapterSend, withoutAWaitCopiesThePacketIntoTheRing)
{
    EXPECT_TRUE(trySend());
    EXPECT_EQ(m_fake.calls(), (QStringList{"WintunAllocateSendPacket 5e55 5", "WintunSendPacket 5e55"}));
    EXPECT_EQ(m_fake.sent(), QByteArrayList{packetBytes});
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSend, withoutAWaitTriesAFullRingOnce)
{
    m_fake.allocateFailures = 1;
    EXPECT_FALSE(trySend());
    EXPECT_EQ(attempts(), 1);
    EXPECT_EQ(m_fake.sent(), QByteArrayList());
    EXPECT_TRUE(trySend()) << "there is room again";
    EXPECT_EQ(m_fake.sent(), QByteArrayList{packetBytes});
    EXPECT_TRUE(m_pauses.empty());
    EXPECT_EQ(m_log.lines(), QStringList()) << "it is for the caller to say what becomes of the packet";
}

TEST_F(WintunAdapterSend, withoutAWaitTakesAnEndingSessionForAFullRing)
{
    m_fake.allocateFailures = -1;
    m_fake.allocateError = ERROR_HANDLE_EOF;
    EXPECT_FALSE(trySend());
    EXPECT_EQ(attempts(), 1);
    EXPECT_TRUE(m_pauses.empty());
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSend, withoutAWaitSaysWhatElseWentWrong)
{
    m_fake.allocateFailures = -1;
    m_fake.allocateError = ERROR_INVALID_PARAMETER;
    EXPECT_FALSE(trySend());
    EXPECT_EQ(attempts(), 1);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to allocate send packet: 87"});
}

TEST_F(WintunAdapterSend, startsCountingAnewWithEachPacket)
{
    m_fake.allocateFailures = 49;
    EXPECT_TRUE(send());
    m_fake.allocateFailures = 49;
    EXPECT_TRUE(send());
    EXPECT_EQ(m_fake.sent().size(), 2);
}

TEST_F(WintunAdapterSend, needsASession)
{
    m_adapter.endSession();
    m_fake.clear();
    EXPECT_FALSE(send());
    EXPECT_FALSE(trySend());
    EXPECT_EQ(m_adapter.allocatePacket(1), nullptr);
    EXPECT_EQ(m_log.lines(), QStringList(3, "WARNING [WINTUN-SEND] No session!"));
    EXPECT_EQ(m_fake.calls(), QStringList());
}

TEST_F(WintunAdapterSend, saysTheFirstTenTimesAndEveryThousandthThatAPacketIsLost)
{
    m_fake.allocateFailures = -1;
    for (int i = 0; i < 12; ++i)
        EXPECT_FALSE(send());
    EXPECT_EQ(m_log.lines().size(), 10);
    m_log.clear();

    m_fake.allocateError = ERROR_INVALID_PARAMETER;
    for (int i = 0; i < 1000; ++i)
        EXPECT_FALSE(trySend());
    EXPECT_EQ(m_log.lines(), QStringList(11, "WARNING Failed to allocate send packet: 87"));
    m_log.clear();

    m_adapter.endSession();
    for (int i = 0; i < 1000; ++i)
        EXPECT_FALSE(trySend());
    EXPECT_EQ(m_log.lines(), QStringList(11, "WARNING [WINTUN-SEND] No session!"));
}

} // namespace
} // namespace ruvo
