#include "netconfig/netconfig_test.h"

#include "common/windows_handles.h"

#include <gmock/gmock.h>

#include <bit>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct DnsInterfaceSettings
{
    ULONG version;
    ULONG64 flags;
    const wchar_t *domain;
    const wchar_t *nameServer;
    const wchar_t *searchList;
    ULONG others[4];
    const wchar_t *profileNameServer;
};

// Resolved at run time, as programs do that run on systems without it too.
DWORD setDns(const GUID &interfaceGuid, const DnsInterfaceSettings &settings)
{
    using Function = DWORD(WINAPI *)(GUID, const DnsInterfaceSettings *);
    const auto function =
        std::bit_cast<Function>(GetProcAddress(GetModuleHandleW(L"iphlpapi.dll"), "SetInterfaceDnsSettings"));
    return function ? function(interfaceGuid, &settings) : DWORD{ERROR_PROC_NOT_FOUND};
}

DnsInterfaceSettings nameServers(const wchar_t *list)
{
    return {1, 2, nullptr, list, nullptr, {}, nullptr};
}

std::wstring recorded(const wchar_t *service)
{
    const std::wstring path = std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\") + service
                              + L"\\Parameters\\Interfaces\\{12345678-9ABC-DEF0-0102-030405060708}";
    wchar_t text[200] = L"";
    DWORD size = sizeof text;
    const LSTATUS error =
        RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"NameServer", RRF_RT_REG_SZ, nullptr, text, &size);
    return error == ERROR_SUCCESS ? text : L"(none)";
}

} // namespace

TEST_F(NetconfigTest, dnsServersAreRecordedUnderTheGuid)
{
    EXPECT_EQ(setDns(guid, nameServers(L"10.6.7.2")), DWORD{NO_ERROR});
    EXPECT_EQ(recorded(L"Tcpip"), L"10.6.7.2");
    EXPECT_EQ(setDns(guid, nameServers(L"10.6.7.2,8.8.8.8")), DWORD{NO_ERROR});
    EXPECT_EQ(recorded(L"Tcpip"), L"10.6.7.2,8.8.8.8");
    EXPECT_EQ(setDns(guid, nameServers(L"")), DWORD{NO_ERROR});
    EXPECT_EQ(recorded(L"Tcpip"), L"");

    DnsInterfaceSettings ipv6 = nameServers(L"2001:db8::1");
    ipv6.flags |= 1;
    EXPECT_EQ(setDns(guid, ipv6), DWORD{NO_ERROR});
    EXPECT_EQ(recorded(L"Tcpip6"), L"2001:db8::1");
    EXPECT_THAT(
        journal("SetInterfaceDnsSettings"),
        ::testing::Contains(HasSubstr(R"("guid":"{12345678-9ABC-DEF0-0102-030405060708}","version":1,"flags":2,)"
                                      R"("name-server":"10.6.7.2","result":true)")));
}

TEST_F(NetconfigTest, dnsServersThatCannotBeAreRefused)
{
    EXPECT_EQ(setDns(GUID{}, nameServers(L"10.6.7.2")), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(setDns(guid, nameServers(L"10.6.7")), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(setDns(guid, nameServers(L"2001:db8::1")), DWORD{ERROR_INVALID_PARAMETER});
    DnsInterfaceSettings settings = nameServers(L"10.6.7.2");
    settings.version = 0;
    EXPECT_EQ(setDns(guid, settings), DWORD{ERROR_INVALID_PARAMETER});
    settings.version = 1;
    settings.flags = 4; // a search list
    EXPECT_EQ(setDns(guid, settings), DWORD{ERROR_NOT_SUPPORTED});
}

} // namespace ruvo::test
