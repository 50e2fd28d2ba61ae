// The program of a process id.

#include "netcfg/port_owner_lookup.h"

#include "windows/support/call_journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace ruvo {
namespace {

using test::CallJournal;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t somePid = 1234;

class ProcessImage : public testing::Test
{
protected:
    ProcessImage()
    {
        m_journal.watch<IMPORT(OpenProcess)>([](auto...) { return reinterpret_cast<HANDLE>(0x500); });
        m_journal.watch<IMPORT(QueryFullProcessImageNameW)>([this](HANDLE, DWORD, LPWSTR buffer, PDWORD size) {
            if (*size <= m_path.size()) {
                SetLastError(ERROR_INSUFFICIENT_BUFFER);
                return FALSE;
            }
            m_roomGiven = *size;
            buffer[m_path.copy(buffer, m_path.size())] = L'\0';
            *size = static_cast<DWORD>(m_path.size());
            return TRUE;
        });
        m_journal.watch<IMPORT(CloseHandle)>([](HANDLE) { return TRUE; });
    }

    std::wstring m_path = L"C:\\Program Files\\Browser\\browser.exe";
    DWORD m_roomGiven = 0;
    CallJournal m_journal;
};

TEST_F(ProcessImage, isTheFullPathInTheFormOfWin32)
{
    EXPECT_EQ(PortOwnerLookup::processImage(somePid), m_path);
    EXPECT_EQ(m_roomGiven, DWORD{MAX_PATH});
    const auto lines = m_journal.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "OpenProcess(0x1000, 0, 0x4d2)");
    EXPECT_TRUE(lines[1].starts_with("QueryFullProcessImageNameW(0x500, 0, ")) << lines[1];
    EXPECT_EQ(lines[2], "CloseHandle(0x500)");
}

TEST_F(ProcessImage, ofTheTwoSystemProcessesIsANameThatNoExecutableHas)
{
    EXPECT_EQ(PortOwnerLookup::processImage(0), L":System Idle Process");
    EXPECT_EQ(PortOwnerLookup::processImage(4), L":System");
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(ProcessImage, ofOneThatHasEndedOrMayNotBeOpenedIsItsNumber)
{
    m_journal.fail("OpenProcess", ERROR_INVALID_PARAMETER);
    EXPECT_EQ(PortOwnerLookup::processImage(somePid), L"[PID:1234]");
    EXPECT_EQ(PortOwnerLookup::processImage(0xFFFFFFFF), L"[PID:4294967295]");
    EXPECT_EQ(m_journal.lines().size(), 2u);
}

TEST_F(ProcessImage, ofOneThatCannotBeAskedIsItsNumberAndItsHandleIsClosed)
{
    m_journal.fail("QueryFullProcessImageNameW", ERROR_GEN_FAILURE);
    EXPECT_EQ(PortOwnerLookup::processImage(somePid), L"[PID:1234]");
    EXPECT_THAT(m_journal.unclosed({"OpenProcess"}, "CloseHandle"), IsEmpty());
}

TEST_F(ProcessImage, whosePathIsTooLongIsItsNumber)
{
    m_path = L"C:\\" + std::wstring(MAX_PATH - 4, L'x');
    EXPECT_EQ(PortOwnerLookup::processImage(somePid), m_path);
    m_path += L'x';
    EXPECT_EQ(PortOwnerLookup::processImage(somePid), L"[PID:1234]");
    EXPECT_THAT(m_journal.unclosed({"OpenProcess"}, "CloseHandle"), IsEmpty());
}

} // namespace
} // namespace ruvo
