#include "windows/support/process_job.h"

#include "common/windows_handles.h"
#include "support/wait_until.h"
#include "windows/support/child_process.h"

#include <gtest/gtest.h>

#include <QCoreApplication>

#include <cstdio>

namespace ruvo::test {
namespace {

/// Sleeps for longer than any test takes.
const ChildProgram s_sleeper("sleeper", [](const QStringList &) {
    Sleep(10 * 60 * 1000);
    return 0;
});

/// Starts a sleeper, prints its id, and does not look after it.
void leaveASleeper()
{
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring line = L'"' + std::wstring(path) + L"\" --child-program sleeper";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(
        CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process));
    const KernelHandle owner(process.hProcess);
    const KernelHandle thread(process.hThread);
    std::printf("sleeper %lu\n", process.dwProcessId);
}

const ChildProgram s_leaver("leaver", [](const QStringList &) {
    const ProcessJob job;
    leaveASleeper();
    return 7;
});

DWORD sleeperIn(const QByteArray &output)
{
    const qsizetype place = output.indexOf("sleeper ");
    EXPECT_GE(place, 0) << output.toStdString();
    return output.mid(place + 8).split('\n').first().toUInt();
}

bool waitForDeath(DWORD pid)
{
    return waitUntil([pid] {
        const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
        return !process || WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
    });
}

TEST(ProcessJob, endsWithItsProcessWhateverThatHasLeft)
{
    const ChildResult result = runChild("leaver");
    EXPECT_EQ(result.status, 7);
    EXPECT_TRUE(waitForDeath(sleeperIn(result.output)));
}

// Run by the next test, in a process of its own.
TEST(ProcessJob, DISABLED_leavesAProcess)
{
    leaveASleeper();
}

TEST(ProcessJob, isLookedAtAfterEachTest)
{
    ChildProcess tests = ChildProcess::ofExecutable(
        QCoreApplication::applicationFilePath(),
        {"--gtest_also_run_disabled_tests", "--gtest_filter=ProcessJob.DISABLED_leavesAProcess"});
    EXPECT_EQ(tests.waitForEnd(std::chrono::seconds(40)), 1);
    const QByteArray output = tests.output();
    EXPECT_TRUE(output.contains("the test leaves a process: L\"common_windows_tests.exe\"")) << output.toStdString();
    EXPECT_TRUE(waitForDeath(sleeperIn(output)));
}

} // namespace
} // namespace ruvo::test
