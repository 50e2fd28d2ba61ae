#include "process/console_interrupt.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/process/console_delivery.h"
#include "windows/support/call_journal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>

namespace ruvo {
namespace {

constexpr DWORD pid = 77;
constexpr DWORD someError = 1234;
constexpr std::array standardHandles = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};

std::array<HANDLE, 3> getStandardHandles()
{
    return {GetStdHandle(STD_INPUT_HANDLE), GetStdHandle(STD_OUTPUT_HANDLE), GetStdHandle(STD_ERROR_HANDLE)};
}

using Lines = std::vector<std::string>;

/// A Windows whose consoles do nothing, and that forgets the standard handles with each of them.
class FakeConsole
{
public:
    FakeConsole()
    {
        journal.watch<IMPORT(GetStdHandle)>([this](DWORD which) { return m_handles[index(which)]; },
                                            test::FailsWith::minusOne);
        journal.watch<IMPORT(SetStdHandle)>([this](DWORD which, HANDLE handle) {
            m_handles[index(which)] = handle;
            return TRUE;
        });
        journal.watch<IMPORT(FreeConsole)>([this] {
            m_handles.fill(nullptr);
            SetLastError(999);
            return TRUE;
        });
        journal.watch<IMPORT(AttachConsole)>([this](DWORD) {
            m_handles.fill(reinterpret_cast<HANDLE>(0x99));
            if (++attempts > failingAttempts)
                return TRUE;
            SetLastError(attachError);
            return FALSE;
        });
        journal.watch<IMPORT(SetConsoleCtrlHandler)>([this](PHANDLER_ROUTINE routine, BOOL add) {
            if (routine && add)
                handler = routine;
            SetLastError(998);
            return TRUE;
        });
        journal.watch<IMPORT(GenerateConsoleCtrlEvent)>([](auto...) { return TRUE; });
        journal.watch<IMPORT(Sleep)>([](DWORD) {});
    }

    Lines lines(const std::string &function) const
    {
        Lines lines = journal.lines();
        std::erase_if(lines, [&](const std::string &line) { return !line.starts_with(function + '('); });
        return lines;
    }
    bool hasItsStandardHandlesBack() const { return m_handles == s_standard; }

    test::CallJournal journal;
    int attempts = 0;
    int failingAttempts = 0;
    DWORD attachError = ERROR_INVALID_HANDLE;
    PHANDLER_ROUTINE handler = nullptr;

private:
    static std::size_t index(DWORD which)
    {
        const auto place = std::ranges::find(standardHandles, which);
        EXPECT_NE(place, standardHandles.end());
        return static_cast<std::size_t>(place - standardHandles.begin());
    }

    using Handles = std::array<HANDLE, standardHandles.size()>;
    inline static const Handles s_standard = {reinterpret_cast<HANDLE>(0x10), reinterpret_cast<HANDLE>(0x14),
                                              reinterpret_cast<HANDLE>(0x18)};
    Handles m_handles = s_standard;
};

TEST(ConsoleInterrupt, attachesSendsAndDetachesInThisOrder)
{
    FakeConsole console;
    const test::LogCapture log;
    EXPECT_TRUE(sendCtrlCToConsoleOf(pid));
    EXPECT_EQ(console.journal.lines(), (Lines{
                                           "GetStdHandle(0xfffffff6)",
                                           "GetStdHandle(0xfffffff5)",
                                           "GetStdHandle(0xfffffff4)",
                                           "FreeConsole()",
                                           "AttachConsole(0x4d)",
                                           "SetConsoleCtrlHandler(null, 1)",
                                           "SetConsoleCtrlHandler(&, 0)",
                                           "SetConsoleCtrlHandler(&, 1)",
                                           "GenerateConsoleCtrlEvent(0, 0)",
                                           "FreeConsole()",
                                           "Sleep(0xa)",
                                           "SetConsoleCtrlHandler(null, 0)",
                                           "SetStdHandle(0xfffffff6, 0x10)",
                                           "SetStdHandle(0xfffffff5, 0x14)",
                                           "SetStdHandle(0xfffffff4, 0x18)",
                                       }));
    EXPECT_EQ(log.lines(), QStringList({"DEBUG [ProcessManager] Attached to console on attempt 1"}));
    EXPECT_TRUE(console.hasItsStandardHandlesBack());
}

TEST(ConsoleInterrupt, waitsForAConsoleThatIsNotThereYet)
{
    FakeConsole console;
    console.failingAttempts = 19;
    const test::LogCapture log;
    EXPECT_TRUE(sendCtrlCToConsoleOf(pid));
    EXPECT_EQ(console.attempts, 20);
    EXPECT_EQ(console.journal.count("Sleep(0x32)"), 19u);
    EXPECT_EQ(log.lines(), QStringList({"DEBUG [ProcessManager] Attached to console on attempt 20"}));
}

TEST(ConsoleInterrupt, givesUpAfterTwentyAttempts)
{
    FakeConsole console;
    console.failingAttempts = 100;
    const test::LogCapture log;
    EXPECT_FALSE(sendCtrlCToConsoleOf(pid));
    EXPECT_EQ(console.attempts, 20);
    EXPECT_EQ(log.lines(),
              QStringList({"WARNING [ProcessManager] Failed to attach to process console after retries"}));
    EXPECT_EQ(console.lines("SetConsoleCtrlHandler"), Lines());
    EXPECT_EQ(console.lines("GenerateConsoleCtrlEvent"), Lines());
    EXPECT_TRUE(console.hasItsStandardHandlesBack());
}

TEST(ConsoleInterrupt, givesUpAtOnceForAnotherReason)
{
    FakeConsole console;
    console.failingAttempts = 100;
    console.attachError = ERROR_ACCESS_DENIED;
    const test::LogCapture log;
    EXPECT_FALSE(sendCtrlCToConsoleOf(pid));
    EXPECT_EQ(console.attempts, 1);
    EXPECT_EQ(console.lines("Sleep"), Lines());
    EXPECT_EQ(log.lines(), QStringList({"WARNING [ProcessManager] AttachConsole failed with error: 5"}));
    EXPECT_TRUE(console.hasItsStandardHandlesBack());
}

TEST(ConsoleInterrupt, tellsTheErrorOfSendingAndNotThatOfALaterCall)
{
    FakeConsole console;
    console.journal.fail("GenerateConsoleCtrlEvent", someError);
    const test::LogCapture log;
    EXPECT_FALSE(sendCtrlCToConsoleOf(pid));
    EXPECT_EQ(log.lines().last(), "WARNING [ProcessManager] GenerateConsoleCtrlEvent failed: 1234");
    EXPECT_EQ(console.lines("FreeConsole").size(), 2u);
    EXPECT_EQ(console.lines("Sleep"), Lines{"Sleep(0xa)"});
    EXPECT_EQ(console.lines("SetConsoleCtrlHandler").back(), "SetConsoleCtrlHandler(null, 0)");
    EXPECT_TRUE(console.hasItsStandardHandlesBack());
}

TEST(ConsoleInterrupt, leavesAHandlerThatSwallowsALateCtrlCAndNothingElse)
{
    FakeConsole console;
    EXPECT_TRUE(sendCtrlCToConsoleOf(pid));
    ASSERT_NE(console.handler, nullptr);
    EXPECT_TRUE(console.handler(CTRL_C_EVENT));
    EXPECT_FALSE(console.handler(CTRL_BREAK_EVENT));
    EXPECT_FALSE(console.handler(CTRL_CLOSE_EVENT));
    EXPECT_FALSE(console.handler(CTRL_SHUTDOWN_EVENT));
}

TEST(ConsoleInterrupt, reachesARealChild)
{
    const test::ConsoleDelivery delivery;
    test::LaunchedChild child({"--ctrl-c-exit", "9", "--print", "ready", "--wait"});
    ASSERT_TRUE(child.launch() && child.waitForOutput("ready"));
    EXPECT_TRUE(sendCtrlCToConsoleOf(child->pid));
    EXPECT_EQ(child.waitForExit(), 9u);
}

TEST(ConsoleInterrupt, reachesARealChildAgainAndAgain)
{
    const test::ConsoleDelivery delivery;
    test::LaunchedChild child({"--ctrl-c-print", "--print", "ready", "--wait"});
    ASSERT_TRUE(child.launch() && child.waitForOutput("ready"));
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(sendCtrlCToConsoleOf(child->pid));
        EXPECT_TRUE(test::waitUntil([&] { return child.facts("ctrl-c").size() == i; })) << i;
    }
    EXPECT_FALSE(child->hasExited());
}

TEST(ConsoleInterrupt, reachesOnlyTheChildThatIsMeant)
{
    const test::ConsoleDelivery delivery;
    const QStringList script = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};
    test::LaunchedChild other(script);
    test::LaunchedChild child(script);
    ASSERT_TRUE(other.launch() && other.waitForOutput("ready"));
    ASSERT_TRUE(child.launch() && child.waitForOutput("ready"));
    EXPECT_TRUE(sendCtrlCToConsoleOf(child->pid));
    EXPECT_EQ(child.waitForExit(), 9u);
    EXPECT_FALSE(other->hasExited());
}

TEST(ConsoleInterrupt, leavesTheStandardHandlesAsTheyWere)
{
    const std::array before = getStandardHandles();
    test::LaunchedChild child({"--ignore-ctrl-c", "--print", "ready", "--wait"});
    ASSERT_TRUE(child.launch() && child.waitForOutput("ready"));
    EXPECT_TRUE(sendCtrlCToConsoleOf(child->pid));
    EXPECT_EQ(getStandardHandles(), before);
}

// The event that was sent may come only after the daemon has ceased to ignore it: without the handler it would end
// this process, and with it all of these tests.
TEST(ConsoleInterrupt, survivesACtrlCThatComesLate)
{
    test::LaunchedChild child({"--ignore-ctrl-c", "--print", "ready", "--wait"});
    ASSERT_TRUE(child.launch() && child.waitForOutput("ready"));
    EXPECT_TRUE(sendCtrlCToConsoleOf(child->pid));

    static std::atomic<int> s_late = 0;
    // Asked first, as the newest: it counts, and leaves the event to the daemon's.
    const PHANDLER_ROUTINE count = [](DWORD) -> BOOL {
        ++s_late;
        return FALSE;
    };
    const std::array before = getStandardHandles();
    ASSERT_TRUE(AttachConsole(child->pid));
    ASSERT_TRUE(SetConsoleCtrlHandler(count, TRUE));
    EXPECT_TRUE(GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0));
    EXPECT_TRUE(test::waitUntil([] { return s_late > 0; }));
    SetConsoleCtrlHandler(count, FALSE);
    FreeConsole();
    for (std::size_t i = 0; i < before.size(); ++i)
        SetStdHandle(standardHandles[i], before[i]);
}

} // namespace
} // namespace ruvo
