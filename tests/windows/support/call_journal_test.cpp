#include "windows/support/call_journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace ruvo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

HANDLE handle(std::uintptr_t value)
{
    return reinterpret_cast<HANDLE>(value);
}

/// Three steps of which each needs the one before; undoes what it did.
bool bringUp()
{
    const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, 1234);
    if (!process)
        return false;
    const HANDLE file = CreateFileW(L"C:\\x", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const bool opened = file != INVALID_HANDLE_VALUE;
    if (opened)
        CloseHandle(file);
    CloseHandle(process);
    return opened;
}

class CallJournalOfSteps : public testing::Test
{
protected:
    CallJournalOfSteps()
    {
        m_journal.watch<IMPORT(OpenProcess)>([](auto...) { return handle(0x70); });
        m_journal.watch<IMPORT(CreateFileW)>([](auto...) { return handle(0x71); }, FailsWith::minusOne);
        m_journal.watch<IMPORT(CloseHandle)>([](auto...) { return TRUE; });
    }

    CallJournal m_journal;
};

TEST_F(CallJournalOfSteps, writesDownEveryCallInOrder)
{
    EXPECT_TRUE(bringUp());
    EXPECT_THAT(m_journal.lines(),
                ElementsAre("OpenProcess(1, 0, 0x4d2)", "CreateFileW(\"C:\\x\", 0x80000000, 0, null, 3, 0, null)",
                            "CloseHandle(0x71)", "CloseHandle(0x70)"));
    EXPECT_EQ(m_journal.count("CloseHandle(0x71)"), 1u);
    EXPECT_EQ(m_journal.failed(), "");
    m_journal.clear();
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(CallJournalOfSteps, failsAFunctionInItsOwnWay)
{
    m_journal.fail("CreateFileW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(CreateFileW(L"", 0, 0, nullptr, 0, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(m_journal.failed(), "CreateFileW");
    EXPECT_EQ(OpenProcess(0, FALSE, 1), handle(0x70));
}

TEST_F(CallJournalOfSteps, failsOnlyTheNthCallOfAFunction)
{
    m_journal.fail("OpenProcess", ERROR_ACCESS_DENIED, 2);
    EXPECT_NE(OpenProcess(0, FALSE, 1), nullptr);
    EXPECT_NE(CreateFileW(L"", 0, 0, nullptr, 0, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(OpenProcess(0, FALSE, 1), nullptr);
    EXPECT_NE(OpenProcess(0, FALSE, 1), nullptr);
}

TEST_F(CallJournalOfSteps, failsEachCallOfASequenceInTurn)
{
    std::vector<std::string> failures;
    std::vector<bool> results;
    forEachFailure(m_journal, ERROR_ACCESS_DENIED, [&] {
        results.push_back(bringUp());
        failures.push_back(m_journal.failed());
        EXPECT_EQ(m_journal.unclosed({"OpenProcess", "CreateFileW"}, "CloseHandle"), std::vector<std::string>{})
            << "when it fails in " << m_journal.failed();
    });
    EXPECT_THAT(failures, ElementsAre("OpenProcess", "CreateFileW", "CloseHandle", "CloseHandle", ""));
    EXPECT_THAT(results, ElementsAre(false, false, true, true, true));
}

TEST_F(CallJournalOfSteps, findsWhatWasNotClosed)
{
    OpenProcess(0, FALSE, 1);
    CreateFileW(L"", 0, 0, nullptr, 0, 0, nullptr);
    CloseHandle(handle(0x71));
    EXPECT_THAT(m_journal.unclosed({"OpenProcess", "CreateFileW"}, "CloseHandle"), ElementsAre("0x70"));
}

TEST_F(CallJournalOfSteps, refusesASequenceWithoutEnd)
{
    const auto triesForEver = [this] {
        while (m_journal.failed().empty())
            OpenProcess(0, FALSE, 1);
    };
    EXPECT_THROW(forEachFailure(m_journal, ERROR_ACCESS_DENIED, triesForEver), std::runtime_error);
}

TEST(CallJournal, leavesOtherThreadsAloneUnlessAskedForThem)
{
    for (const auto threads : {CallJournal::Threads::own, CallJournal::Threads::all}) {
        CallJournal journal(threads);
        journal.watch<IMPORT(GetTickCount)>([] { return DWORD{7}; });
        DWORD seen = 0;
        std::thread([&seen] { seen = GetTickCount(); }).join();
        EXPECT_EQ(seen == 7, threads == CallJournal::Threads::all);
        EXPECT_EQ(journal.lines().size(), threads == CallJournal::Threads::all ? 1u : 0u);
    }
}

TEST(CallJournal, keepsTheLastErrorOfTheAnswer)
{
    CallJournal journal;
    journal.watch<IMPORT(GetFileAttributesW)>(FailsWith::minusOne);
    EXPECT_EQ(GetFileAttributesW(L"C:\\there is no such file"), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_THAT(journal.lines(), ElementsAre("GetFileAttributesW(\"C:\\there is no such file\")"));
}

TEST(CallJournal, givesTheErrorBackWhereTheFunctionReturnsIt)
{
    CallJournal journal;
    journal.watch<IMPORT(RegCloseKey)>(FailsWith::errorCode);
    journal.fail("RegCloseKey", ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegCloseKey(nullptr), ERROR_ACCESS_DENIED);
}

} // namespace
} // namespace ruvo::test
