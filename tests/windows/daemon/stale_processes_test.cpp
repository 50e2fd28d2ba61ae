#include "daemon/stale_processes.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <tlhelp32.h>

namespace ruvo {
namespace {

using test::CallJournal;
using test::FailsWith;
using testing::ElementsAre;
using testing::IsEmpty;

struct Process
{
    DWORD id;
    std::wstring executable;
    std::optional<DWORD> session = 1;
    DWORD openError = NO_ERROR;
    DWORD terminateError = NO_ERROR;
};

HANDLE snapshotHandle()
{
    return reinterpret_cast<HANDLE>(0x500);
}

/// Easy to tell from process ids in the journal.
HANDLE processHandle(DWORD id)
{
    return reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(0x10000 + id));
}

/// A machine with processes that the test names.
class StaleProcesses : public testing::Test
{
protected:
    StaleProcesses()
    {
        m_journal.watch<IMPORT(CreateToolhelp32Snapshot)>([](auto...) { return snapshotHandle(); },
                                                          FailsWith::minusOne);
        m_journal.watch<IMPORT(Process32FirstW)>([this](HANDLE, LPPROCESSENTRY32W entry) {
            m_next = 0;
            return next(entry);
        });
        m_journal.watch<IMPORT(Process32NextW)>([this](HANDLE, LPPROCESSENTRY32W entry) { return next(entry); });
        m_journal.watch<IMPORT(ProcessIdToSessionId)>([this](DWORD id, DWORD *session) {
            const Process &process = *std::ranges::find(m_processes, id, &Process::id);
            *session = process.session.value_or(1);
            return succeed(process.session ? NO_ERROR : ERROR_INVALID_PARAMETER);
        });
        m_journal.watch<IMPORT(OpenProcess)>([this](DWORD, BOOL, DWORD id) {
            return succeed(std::ranges::find(m_processes, id, &Process::id)->openError) ? processHandle(id) : nullptr;
        });
        m_journal.watch<IMPORT(TerminateProcess)>([this](HANDLE handle, UINT) {
            const auto process = std::ranges::find_if(
                m_processes, [&](const Process &candidate) { return processHandle(candidate.id) == handle; });
            return succeed(process->terminateError);
        });
        m_journal.watch<IMPORT(CloseHandle)>([](HANDLE) { return TRUE; });
    }

    static BOOL succeed(DWORD error)
    {
        if (error != NO_ERROR)
            SetLastError(error);
        return error == NO_ERROR;
    }

    BOOL next(LPPROCESSENTRY32W entry)
    {
        EXPECT_EQ(entry->dwSize, sizeof(PROCESSENTRY32W));
        if (m_next >= m_processes.size())
            return succeed(ERROR_NO_MORE_FILES);
        const Process &process = m_processes[m_next++];
        entry->th32ProcessID = process.id;
        entry->szExeFile[process.executable.copy(entry->szExeFile, MAX_PATH - 1)] = L'\0';
        return TRUE;
    }

    /// The calls that change something or hold something, in order.
    std::vector<std::string> effects() const
    {
        std::vector<std::string> lines = m_journal.lines();
        std::erase_if(lines, [](const std::string &line) {
            return line.starts_with("Process32") || line.starts_with("ProcessIdToSessionId");
        });
        return lines;
    }

    std::vector<Process> m_processes;
    std::size_t m_next = 0;
    CallJournal m_journal;
    test::LogCapture m_log;
};

TEST_F(StaleProcesses, areKilledInTheirSessionWhateverTheCaseOfTheirNames)
{
    m_processes = {{4, L"System"},          {10, L"xray.exe"}, {11, L"XRAY.EXE"},
                   {12, L"AntiFilter.exe"}, {13, L"ruvo.exe"}, {14, L"antifilter.exe"}};
    killStaleProcesses(1);
    EXPECT_THAT(effects(),
                ElementsAre("CreateToolhelp32Snapshot(2, 0)", "OpenProcess(1, 0, 0xa)",
                            "TerminateProcess(0x1000a, 1)", "CloseHandle(0x1000a)", "OpenProcess(1, 0, 0xb)",
                            "TerminateProcess(0x1000b, 1)", "CloseHandle(0x1000b)", "OpenProcess(1, 0, 0xc)",
                            "TerminateProcess(0x1000c, 1)", "CloseHandle(0x1000c)", "OpenProcess(1, 0, 0xe)",
                            "TerminateProcess(0x1000e, 1)", "CloseHandle(0x1000e)", "CloseHandle(0x500)"));
    EXPECT_THAT(m_log.lines(),
                ElementsAre("INFO Checking for stale processes in session 1",
                            "WARNING Found stale process \"xray.exe\" PID: 10 in session 1 - killing",
                            "INFO Successfully killed stale process \"xray.exe\" PID: 10",
                            "WARNING Found stale process \"XRAY.EXE\" PID: 11 in session 1 - killing",
                            "INFO Successfully killed stale process \"XRAY.EXE\" PID: 11",
                            "WARNING Found stale process \"AntiFilter.exe\" PID: 12 in session 1 - killing",
                            "INFO Successfully killed stale process \"AntiFilter.exe\" PID: 12",
                            "WARNING Found stale process \"antifilter.exe\" PID: 14 in session 1 - killing",
                            "INFO Successfully killed stale process \"antifilter.exe\" PID: 14",
                            "INFO Killed 4 stale process(es) in session 1"));
}

TEST_F(StaleProcesses, areLeftAloneInOtherSessions)
{
    m_processes = {{10, L"xray.exe", 2}, {11, L"xray.exe", 0}, {12, L"antifilter.exe", std::nullopt}};
    killStaleProcesses(1);
    EXPECT_THAT(effects(), ElementsAre("CreateToolhelp32Snapshot(2, 0)", "CloseHandle(0x500)"));
    EXPECT_THAT(m_log.lines(), ElementsAre("INFO Checking for stale processes in session 1",
                                           "DEBUG No stale processes found in session 1"));
}

TEST_F(StaleProcesses, areOnlyThoseOfTheTwoNames)
{
    m_processes = {{10, L"sing-box.exe"},    {11, L"xray"}, {12, L"myxray.exe"}, {13, L"xray.exe.bak"},
                   {14, L"antifilter.exe "}, {15, L""}};
    killStaleProcesses(1);
    EXPECT_THAT(effects(), ElementsAre("CreateToolhelp32Snapshot(2, 0)", "CloseHandle(0x500)"));
    EXPECT_THAT(m_log.linesWith("WARNING"), IsEmpty());
}

TEST_F(StaleProcesses, areKilledEvenIfAnotherCannotBeOpened)
{
    m_processes = {{10, L"xray.exe", 3, ERROR_ACCESS_DENIED}, {11, L"xray.exe", 3}};
    killStaleProcesses(3);
    EXPECT_THAT(m_log.lines(), ElementsAre("INFO Checking for stale processes in session 3",
                                           "WARNING Found stale process \"xray.exe\" PID: 10 in session 3 - killing",
                                           "WARNING Failed to open stale process \"xray.exe\" PID: 10 error: 5",
                                           "WARNING Found stale process \"xray.exe\" PID: 11 in session 3 - killing",
                                           "INFO Successfully killed stale process \"xray.exe\" PID: 11",
                                           "INFO Killed 1 stale process(es) in session 3"));
    EXPECT_THAT(m_journal.unclosed({"CreateToolhelp32Snapshot", "OpenProcess"}, "CloseHandle"), IsEmpty());
}

TEST_F(StaleProcesses, areKilledEvenIfAnotherCannotBeTerminated)
{
    m_processes = {{10, L"xray.exe", 1, NO_ERROR, ERROR_INVALID_PARAMETER}, {11, L"antifilter.exe"}};
    killStaleProcesses(1);
    EXPECT_THAT(m_log.lines(),
                ElementsAre("INFO Checking for stale processes in session 1",
                            "WARNING Found stale process \"xray.exe\" PID: 10 in session 1 - killing",
                            "WARNING Failed to terminate stale process \"xray.exe\" PID: 10 error: 87",
                            "WARNING Found stale process \"antifilter.exe\" PID: 11 in session 1 - killing",
                            "INFO Successfully killed stale process \"antifilter.exe\" PID: 11",
                            "INFO Killed 1 stale process(es) in session 1"));
    EXPECT_THAT(m_journal.unclosed({"CreateToolhelp32Snapshot", "OpenProcess"}, "CloseHandle"), IsEmpty());
}

TEST_F(StaleProcesses, areNotLookedForWithoutASnapshot)
{
    m_processes = {{10, L"xray.exe"}};
    m_journal.fail("CreateToolhelp32Snapshot", ERROR_ACCESS_DENIED);
    killStaleProcesses(1);
    EXPECT_THAT(m_journal.lines(), ElementsAre("CreateToolhelp32Snapshot(2, 0)"));
    EXPECT_THAT(m_log.lines(), ElementsAre("INFO Checking for stale processes in session 1",
                                           "WARNING Failed to create process snapshot: 5"));
}

TEST_F(StaleProcesses, areNotLookedForWithoutAFirstProcess)
{
    killStaleProcesses(1);
    EXPECT_THAT(effects(), ElementsAre("CreateToolhelp32Snapshot(2, 0)", "CloseHandle(0x500)"));
    EXPECT_THAT(m_log.lines(), ElementsAre("INFO Checking for stale processes in session 1",
                                           "WARNING Failed to get first process: 18"));
}

/// Waits until its standard input is closed.
const test::ChildProgram s_idle("idle", [](const QStringList &) {
    char byte = 0;
    DWORD size = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), &byte, 1, &size, nullptr) && size > 0) {}
    return 0;
});

TEST(StaleProcessesOfTheSystem, areReallyKilled)
{
    const QTemporaryDir folder;
    const QString core = folder.filePath("XRAY.EXE");
    const QString other = folder.filePath("sing-box.exe");
    for (const QString &copy : {core, other})
        ASSERT_TRUE(QFile::copy(QCoreApplication::applicationFilePath(), copy));
    test::ChildProcess stale = test::ChildProcess::ofExecutable(core, {"--child-program", "idle"});
    test::ChildProcess innocent = test::ChildProcess::ofExecutable(other, {"--child-program", "idle"});
    const qint64 staleId = stale.processId();
    DWORD session = 0;
    ASSERT_TRUE(ProcessIdToSessionId(static_cast<DWORD>(staleId), &session));
    ASSERT_NE(session, 0u);

    const test::LogCapture log;
    killStaleProcesses(session);
    EXPECT_EQ(stale.waitForEnd(), 1);
    EXPECT_TRUE(innocent.isRunning());
    EXPECT_TRUE(
        log.contains(QStringLiteral("INFO Successfully killed stale process \"XRAY.EXE\" PID: %1").arg(staleId)))
        << log.lines().join(u'\n').toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("INFO Killed 1 stale process(es) in session %1").arg(session)));
    EXPECT_FALSE(log.contains("sing-box"));
    innocent.closeInput();
    EXPECT_EQ(innocent.waitForEnd(), 0);
}

} // namespace
} // namespace ruvo
