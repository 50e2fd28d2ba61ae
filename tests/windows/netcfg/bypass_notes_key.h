#pragma once

#include "common/windows_handles.h"

#include <gtest/gtest.h>

#include <string>

namespace ruvo::test {

/// A key that stands for the service's own, with whatever is noted below it. Gone with the test, and volatile, so
/// that it would not outlive its Wine either.
class NotesKey
{
public:
    NotesKey()
    {
        EXPECT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS,
                                  nullptr, m_key.out(), nullptr),
                  ERROR_SUCCESS);
    }
    ~NotesKey()
    {
        RegDeleteKeyW(m_key.get(), L"BypassRoutes"); // where anything was noted
        EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str()), ERROR_SUCCESS);
    }
    NotesKey(const NotesKey &) = delete;
    NotesKey &operator=(const NotesKey &) = delete;

    /// The key of the notes; none if there is none.
    RegistryKey notes() const
    {
        RegistryKey key;
        RegOpenKeyExW(m_key.get(), L"BypassRoutes", 0, KEY_READ | KEY_SET_VALUE, key.out());
        return key;
    }

    const std::wstring path =
        L"SYSTEM\\CurrentControlSet\\Services\\ruvod test " + std::to_wstring(GetCurrentProcessId());

private:
    RegistryKey m_key;
};

} // namespace ruvo::test
