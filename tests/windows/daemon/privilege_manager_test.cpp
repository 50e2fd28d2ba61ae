#include "daemon/privilege_manager.h"

#include "windows/support/call_journal.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using test::CallJournal;

/// A process token, elevated or not.
class PrivilegeLevel : public testing::Test
{
protected:
    PrivilegeLevel()
    {
        m_journal.watch<IMPORT(OpenProcessToken)>([this](HANDLE process, DWORD access, PHANDLE token) {
            EXPECT_EQ(process, GetCurrentProcess());
            EXPECT_EQ(access, DWORD{TOKEN_QUERY});
            *token = m_token;
            return TRUE;
        });
        m_journal.watch<IMPORT(GetTokenInformation)>(
            [this](HANDLE token, TOKEN_INFORMATION_CLASS what, LPVOID value, DWORD size, PDWORD returned) {
                EXPECT_EQ(token, m_token);
                EXPECT_EQ(what, TokenElevation);
                EXPECT_EQ(size, sizeof(DWORD));
                *static_cast<DWORD *>(value) = m_elevation;
                *returned = sizeof(DWORD);
                return TRUE;
            });
        m_journal.watch<IMPORT(CloseHandle)>([](HANDLE) { return TRUE; });
    }

    const HANDLE m_token = reinterpret_cast<HANDLE>(0x70);
    DWORD m_elevation = 0;
    CallJournal m_journal;
};

TEST_F(PrivilegeLevel, isOneForAnElevatedToken)
{
    for (const DWORD elevation : {1u, 2u, 0x80000000u}) {
        m_elevation = elevation;
        EXPECT_EQ(PrivilegeManager::privilegeLevel(), 1);
    }
    EXPECT_EQ(m_journal.count("CloseHandle(0x70)"), 3u);
}

TEST_F(PrivilegeLevel, isZeroForAPlainToken)
{
    EXPECT_EQ(PrivilegeManager::privilegeLevel(), 0);
    EXPECT_EQ(m_journal.count("CloseHandle(0x70)"), 1u);
}

TEST_F(PrivilegeLevel, isZeroIfTheTokenCannotBeOpened)
{
    m_elevation = 1;
    m_journal.fail("OpenProcessToken", ERROR_ACCESS_DENIED);
    EXPECT_EQ(PrivilegeManager::privilegeLevel(), 0);
    EXPECT_EQ(m_journal.lines().size(), 1u) << "nothing to ask, nothing to close";
}

TEST_F(PrivilegeLevel, isZeroIfTheTokenCannotBeRead)
{
    m_elevation = 1;
    m_journal.fail("GetTokenInformation", ERROR_ACCESS_DENIED);
    EXPECT_EQ(PrivilegeManager::privilegeLevel(), 0);
    EXPECT_EQ(m_journal.count("CloseHandle(0x70)"), 1u);
}

TEST_F(PrivilegeLevel, isAskedAnewEachTimeButRememberedByTheObject)
{
    m_elevation = 1;
    const PrivilegeManager elevated;
    m_elevation = 0;
    const PrivilegeManager plain;
    m_elevation = 1;
    EXPECT_TRUE(elevated.isElevated());
    EXPECT_FALSE(plain.isElevated());
    EXPECT_EQ(PrivilegeManager::privilegeLevel(), 1);
}

} // namespace
} // namespace ruvo
