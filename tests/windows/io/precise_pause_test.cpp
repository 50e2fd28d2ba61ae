// Pauses that Windows' clock tick does not round up.

#include "io/precise_pause.h"

#include "windows/support/call_journal.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::CallJournal;
using test::ImportRedirection;

/// On a thread of its own: a thread keeps the timer that it once had.
template<typename Function>
void onNewThread(Function function)
{
    std::thread(function).join();
}

TEST(PrecisePause, lastsAsLongAsItWasAskedTo)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
        precisePause(2ms);
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, 19ms); // Windows may be early by less than its timer's step
    EXPECT_LT(time, 5s);
}

TEST(PrecisePause, makesOneHighResolutionTimerAThreadAndGivesItBack)
{
    CallJournal journal(CallJournal::Threads::all);
    std::vector<LONGLONG> due;
    journal.watch<IMPORT(CreateWaitableTimerExW)>();
    journal.watch<IMPORT(CloseHandle)>();
    const ImportRedirection<IMPORT(SetWaitableTimer)> set([&](HANDLE timer, const LARGE_INTEGER *time, auto... rest) {
        due.push_back(time->QuadPart);
        return set.real(timer, time, rest...);
    });
    onNewThread([] {
        precisePause(1ms);
        precisePause(2ms);
    });
    EXPECT_EQ(due, (std::vector<LONGLONG>{-10'000, -20'000}));
    EXPECT_EQ(journal.count("CreateWaitableTimerExW(null, null, 2, 0x1f0003)"), 1u);
    EXPECT_EQ(journal.unclosed({"CreateWaitableTimerExW"}, "CloseHandle"), std::vector<std::string>());
}

TEST(PrecisePause, sleepsWhereThereIsNoSuchTimer)
{
    CallJournal journal(CallJournal::Threads::all);
    journal.watch<IMPORT(CreateWaitableTimerExW)>();
    journal.watch<IMPORT(Sleep)>([](DWORD) {});
    journal.fail("CreateWaitableTimerExW", ERROR_INVALID_PARAMETER); // before Windows 10 1803
    onNewThread([] {
        precisePause(1ms);
        precisePause(2ms);
    });
    EXPECT_EQ(journal.count("Sleep(1)"), 1u);
    EXPECT_EQ(journal.count("Sleep(2)"), 1u);
}

TEST(PrecisePause, sleepsWhereTheTimerCannotBeSet)
{
    CallJournal journal(CallJournal::Threads::all);
    journal.watch<IMPORT(SetWaitableTimer)>();
    journal.watch<IMPORT(Sleep)>([](DWORD) {});
    journal.fail("SetWaitableTimer", ERROR_INVALID_HANDLE);
    onNewThread([] { precisePause(3ms); });
    EXPECT_EQ(journal.count("Sleep(3)"), 1u);
}

} // namespace
} // namespace ruvo
