// DNS servers of the adapter: through the newer function where there is one, else in the registry.

#include "netcfg/dns_settings.h"

#include "netcfg/wintun_adapter.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_ip_helper.h"
#include "windows/netcfg/fake_wintun.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstddef>
#include <cstring>

namespace ruvo {
namespace {

using test::FakeIpHelper;
using test::FakeWintun;

// DNS_INTERFACE_SETTINGS as Windows lays it out, by offset: nothing is shared with the product's declaration.
constexpr std::size_t versionOffset = 0;
constexpr std::size_t flagsOffset = 8;
constexpr std::size_t domainOffset = 16;
constexpr std::size_t nameServerOffset = 24;
constexpr std::size_t structureSize = 64;

template<typename T>
T at(const std::byte *structure, std::size_t offset)
{
    T value;
    std::memcpy(&value, structure + offset, sizeof(value));
    return value;
}

const NET_LUID luid = [] {
    NET_LUID value{};
    value.Value = FakeWintun::luid;
    return value;
}();
const QString luidText = QString::number(FakeWintun::luid);
const QString guidText = "{12345678-9ABC-DEF0-0102-030405060708}";
const QString ipv4Key = R"(SYSTEM\CurrentControlSet\Services\Tcpip\Parameters\Interfaces\)" + guidText;
const QString ipv6Key = R"(SYSTEM\CurrentControlSet\Services\Tcpip6\Parameters\Interfaces\)" + guidText;

/// The function that is looked up and the registry, as they are called.
class DnsSettings : public testing::Test
{
protected:
    static void SetUpTestSuite() { LoadLibraryW(L"iphlpapi.dll"); }

    void SetUp() override { s_test = this; }

    QStringList calls() const { return m_ipHelper.calls + m_calls; }

    test::LogCapture m_log;
    FakeIpHelper m_ipHelper;
    QStringList m_calls;
    bool m_hasFunction = true;
    DWORD m_functionError = NO_ERROR;
    LSTATUS m_openError = ERROR_SUCCESS;
    LSTATUS m_writeError = ERROR_SUCCESS;

private:
    static DWORD WINAPI setInterfaceDnsSettings(GUID guid, const std::byte *settings)
    {
        wchar_t text[64] = {};
        StringFromGUID2(guid, text, 64);
        QString line = QString("SetInterfaceDnsSettings %1 version %2 flags %3 servers %4")
                           .arg(QString::fromWCharArray(text))
                           .arg(at<ULONG>(settings, versionOffset))
                           .arg(at<ULONG64>(settings, flagsOffset))
                           .arg(QString::fromWCharArray(at<const wchar_t *>(settings, nameServerOffset)));
        for (std::size_t offset = domainOffset; offset < structureSize; offset += sizeof(void *)) {
            if (offset != nameServerOffset && at<ULONG64>(settings, offset) != 0)
                line += " and something at " + QString::number(offset);
        }
        s_test->m_calls.append(line);
        return s_test->m_functionError;
    }

    inline static DnsSettings *s_test = nullptr;

    const test::ImportRedirection<IMPORT(GetProcAddress)> m_lookUp{[this](HMODULE module, LPCSTR name) -> FARPROC {
        if (module != GetModuleHandleW(L"iphlpapi.dll") || std::strcmp(name, "SetInterfaceDnsSettings") != 0)
            return m_lookUp.real(module, name);
        return m_hasFunction ? std::bit_cast<FARPROC>(&setInterfaceDnsSettings) : nullptr;
    }};
    const test::ImportRedirection<IMPORT(RegOpenKeyExW)> m_open{
        [this](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
            m_calls.append(QString("RegOpenKeyExW %1 %2 %3 access %4")
                               .arg(root == HKEY_LOCAL_MACHINE ? "HKLM" : "another")
                               .arg(QString::fromWCharArray(path))
                               .arg(options)
                               .arg(access, 0, 16));
            *key = m_openError == ERROR_SUCCESS ? reinterpret_cast<HKEY>(0xCE1) : nullptr;
            return m_openError;
        }};
    const test::ImportRedirection<IMPORT(RegSetValueExA)> m_write{
        [this](HKEY, LPCSTR name, DWORD reserved, DWORD type, const BYTE *data, DWORD size) -> LSTATUS {
            const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
            m_calls.append(QString("RegSetValueExA %1 %2 type %3 %4")
                               .arg(name)
                               .arg(reserved)
                               .arg(type)
                               .arg(QString(bytes.toPercentEncoding(","))));
            return m_writeError;
        }};
    const test::ImportRedirection<IMPORT(RegCloseKey)> m_close{[this](HKEY key) -> LSTATUS {
        if (key != reinterpret_cast<HKEY>(0xCE1))
            return m_close.real(key);
        m_calls.append("RegCloseKey");
        return ERROR_SUCCESS;
    }};
};

const QString toGuid = "ConvertInterfaceLuidToGuid " + luidText;
const QString openIpv4 = "RegOpenKeyExW HKLM " + ipv4Key + " 0 access 20006"; // KEY_WRITE
const QString openIpv6 = "RegOpenKeyExW HKLM " + ipv6Key + " 0 access 20006";

TEST_F(DnsSettings, areSetThroughTheFunctionThatWindowsHas)
{
    EXPECT_TRUE(writeDnsServers(luid, "10.6.7.2", {}));
    EXPECT_EQ(calls(),
              (QStringList{toGuid, "SetInterfaceDnsSettings " + guidText + " version 1 flags 2 servers 10.6.7.2"}));
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG DNS servers configured via API: 10.6.7.2"});
}

TEST_F(DnsSettings, haveASecondServerBehindACommaAndNoSpace)
{
    EXPECT_TRUE(writeDnsServers(luid, "10.6.7.2", "9.9.9.9"));
    EXPECT_EQ(calls().constLast(),
              "SetInterfaceDnsSettings " + guidText + " version 1 flags 2 servers 10.6.7.2,9.9.9.9");
    EXPECT_EQ(m_log.lines(),
              (QStringList{"DEBUG DNS servers configured via API: 10.6.7.2", "DEBUG   Secondary: 9.9.9.9"}));
}

TEST_F(DnsSettings, goIntoTheRegistryWhereTheFunctionIsMissing)
{
    m_hasFunction = false;
    EXPECT_TRUE(writeDnsServers(luid, "10.6.7.2", "9.9.9.9"));
    EXPECT_EQ(calls(), (QStringList{toGuid, openIpv4, "RegSetValueExA NameServer 0 type 1 10.6.7.2,9.9.9.9%00",
                                    "RegCloseKey"}));
    EXPECT_EQ(m_log.lines(),
              (QStringList{"DEBUG DNS servers configured (registry): 10.6.7.2", "DEBUG   Secondary: 9.9.9.9"}));
}

TEST_F(DnsSettings, goIntoTheRegistryWhereTheFunctionFails)
{
    m_functionError = ERROR_NOT_SUPPORTED;
    EXPECT_TRUE(writeDnsServers(luid, "10.6.7.2", {}));
    EXPECT_EQ(calls().mid(2),
              (QStringList{openIpv4, "RegSetValueExA NameServer 0 type 1 10.6.7.2%00", "RegCloseKey"}));
    EXPECT_EQ(m_log.lines(), (QStringList{"WARNING SetInterfaceDnsSettings failed: 50 , falling back to registry",
                                          "DEBUG DNS servers configured (registry): 10.6.7.2"}));
}

TEST_F(DnsSettings, failIfTheRegistryCannotBeOpened)
{
    m_hasFunction = false;
    m_openError = ERROR_FILE_NOT_FOUND;
    EXPECT_FALSE(writeDnsServers(luid, "10.6.7.2", {}));
    EXPECT_EQ(calls(), (QStringList{toGuid, openIpv4}));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to open registry key: 2"});
}

TEST_F(DnsSettings, failIfTheRegistryCannotBeWritten)
{
    m_hasFunction = false;
    m_writeError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(writeDnsServers(luid, "10.6.7.2", {}));
    EXPECT_EQ(calls().constLast(), "RegCloseKey");
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to set DNS servers in registry: 5"});
}

TEST_F(DnsSettings, failIfTheInterfaceIsUnknown)
{
    m_ipHelper.fail("ConvertInterfaceLuidToGuid", ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(writeDnsServers(luid, "10.6.7.2", {}));
    EXPECT_FALSE(writeIpv6DnsServers(luid, {}, {}));
    EXPECT_EQ(calls(), (QStringList{toGuid, toGuid}));
    EXPECT_EQ(m_log.lines(), QStringList(2, "WARNING Failed to convert LUID to GUID: 87"));
}

TEST_F(DnsSettings, ofIpv6AreClearedWithAnEmptyText)
{
    EXPECT_TRUE(writeIpv6DnsServers(luid, {}, {}));
    EXPECT_EQ(calls(), (QStringList{toGuid, openIpv6, "RegSetValueExA NameServer 0 type 1 %00", "RegCloseKey"}));
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG IPv6 DNS servers configured: "});
}

TEST_F(DnsSettings, ofIpv6GoIntoTheRegistryOnly)
{
    EXPECT_TRUE(writeIpv6DnsServers(luid, "2001:db8::1", "2001:db8::2"));
    EXPECT_EQ(calls().at(2), "RegSetValueExA NameServer 0 type 1 2001%3Adb8%3A%3A1,2001%3Adb8%3A%3A2%00");
    EXPECT_EQ(m_log.lines(),
              (QStringList{"DEBUG IPv6 DNS servers configured: 2001:db8::1", "DEBUG   Secondary: 2001:db8::2"}));
}

TEST_F(DnsSettings, ofIpv6FailWithTheRegistry)
{
    m_openError = ERROR_FILE_NOT_FOUND;
    EXPECT_FALSE(writeIpv6DnsServers(luid, {}, {}));
    m_openError = ERROR_SUCCESS;
    m_writeError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(writeIpv6DnsServers(luid, {}, {}));
    EXPECT_EQ(m_log.lines(), (QStringList{"WARNING Failed to open IPv6 registry key: 2",
                                          "WARNING Failed to set IPv6 DNS servers in registry: 5"}));
    EXPECT_EQ(m_calls.count("RegCloseKey"), 1);
}

TEST_F(DnsSettings, ofTheAdapterAreThoseOfItsLuid)
{
    FakeWintun wintun;
    WintunAdapter adapter;
    ASSERT_TRUE(adapter.load(FakeWintun::path));
    ASSERT_TRUE(adapter.createAdapter(L"tun", L"SocksTunnel"));
    EXPECT_TRUE(adapter.setDnsServers("10.6.7.2", {}));
    EXPECT_TRUE(adapter.setIpv6DnsServers({}, {}));
    EXPECT_EQ(m_ipHelper.calls, (QStringList{toGuid, toGuid}));
}

} // namespace
} // namespace ruvo
