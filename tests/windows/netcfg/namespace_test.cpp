#include "windows/netcfg/namespace_test.h"

#include "common/windows_handles.h"

#include <QString>

namespace ruvo::test {

namespace {

constexpr char routesAtFirst[] = "default via 192.0.2.1 dev uplink metric 25\n"
                                 "192.0.2.0/24 dev uplink proto kernel scope link src 192.0.2.2\n";

} // namespace

void NamespaceTest::SetUp()
{
    clearBenchFolder();
    ASSERT_EQ(tunLinks(), "");
    ASSERT_EQ(routes(), routesAtFirst);
}

void NamespaceTest::TearDown()
{
    failNothing();
    EXPECT_EQ(journal("\"misuse\""), std::vector<std::string>());
    linuxOutput("ip link delete kept");
    EXPECT_EQ(tunLinks(), "");
    EXPECT_EQ(routes(), routesAtFirst);
    linuxOutput("ip route flush proto static"); // so that the next test is not spoilt as well
}

std::wstring NamespaceTest::libraryPath()
{
    return (programFolder() / "tun2" / "wintun.dll").wstring();
}

void NamespaceTest::makeAdapter(const std::string &name)
{
    ASSERT_EQ(linuxOutput("ip tuntap add dev kept mode tun multi_queue && ip link set kept up alias "
                          "'wintun | {12345678-9ABC-DEF0-0102-030405060708} | SocksTunnel | "
                          + name + "'"),
              "");
}

std::string NamespaceTest::tunLinks()
{
    return linuxOutput("ip -o link show type tun");
}

std::string NamespaceTest::addressesOf(const std::string &link)
{
    return linuxOutput("ip -o -4 address show dev " + link + " | sed 's/.* inet \\([^ ]*\\) .*/\\1/' | xargs");
}

std::string NamespaceTest::routes(const std::string &what)
{
    return linuxOutput("ip -4 route show " + what + " | sed 's/ *$//'");
}

std::string NamespaceTest::nameServer(const std::wstring &service, const GUID &guid)
{
    wchar_t guidText[64] = {};
    StringFromGUID2(guid, guidText, 64);
    const std::wstring path =
        L"SYSTEM\\CurrentControlSet\\Services\\" + service + L"\\Parameters\\Interfaces\\" + guidText;
    wchar_t value[256] = {};
    DWORD size = sizeof(value);
    const LSTATUS error =
        RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), L"NameServer", RRF_RT_REG_SZ, nullptr, value, &size);
    return error == ERROR_SUCCESS ? QString::fromWCharArray(value).toStdString() : "(none)";
}

void NamespaceTest::fail(const std::string &function, DWORD error, const std::string &which)
{
    writeBenchFile("faults.txt", function + " " + which + " " + std::to_string(error) + "\n");
}

void NamespaceTest::failNothing()
{
    writeBenchFile("faults.txt", "");
}

} // namespace ruvo::test
