#include "ipc/session_listing.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/support/fake_sessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ruvo {
namespace {

using test::FakeSessions;
using testing::ElementsAre;
using testing::IsEmpty;

void expectAllMemoryFreed(const FakeSessions &sessions)
{
    EXPECT_EQ(sessions.unfreedAnswers(), 0u);
    EXPECT_FALSE(sessions.freedWrongly());
}

TEST(SessionListing, keepsSessionsWithAUserInTheSystemsOrder)
{
    const FakeSessions sessions{
        {.id = 0, .user = L"SYSTEM"}, // the services' own
        {.id = 7},
        {.id = 2, .state = WTSConnected},
        {.id = 3, .state = WTSDisconnected},
        {.id = 4, .user = L""},
        {.id = 5, .user = std::nullopt},
        {.id = 1},
        {.id = 65536, .state = WTSListen},
    };
    EXPECT_THAT(activeSessions(), ElementsAre(7u, 2u, 1u));
    EXPECT_EQ(sessions.answers(), 5u) << "the list and the names of 7, 2, 4 and 1";
    expectAllMemoryFreed(sessions);
}

TEST(SessionListing, leavesOutEveryOtherState)
{
    for (const WTS_CONNECTSTATE_CLASS state :
         {WTSConnectQuery, WTSShadow, WTSDisconnected, WTSIdle, WTSListen, WTSReset, WTSDown, WTSInit}) {
        const FakeSessions sessions{{.id = 1, .state = state}};
        EXPECT_THAT(activeSessions(), IsEmpty()) << "state " << state;
        expectAllMemoryFreed(sessions);
    }
}

TEST(SessionListing, isEmptyWithoutSessions)
{
    const FakeSessions sessions;
    const test::LogCapture log;
    EXPECT_THAT(activeSessions(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
    expectAllMemoryFreed(sessions);
}

TEST(SessionListing, warnsAndIsEmptyWhenTheSystemCannotList)
{
    FakeSessions sessions{{.id = 1}};
    sessions.failEnumeration(RPC_S_SERVER_UNAVAILABLE);
    const test::LogCapture log;
    EXPECT_THAT(activeSessions(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("WARNING WTSEnumerateSessionsW failed: 1722"));
    EXPECT_EQ(sessions.answers(), 0u);
    expectAllMemoryFreed(sessions);
}

} // namespace
} // namespace ruvo
