#include "namespace/bench_files.h"
#include "namespace/linux_command.h"
#include "wintun/wintun_library.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ruvo::test {

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class WintunAdapterTest : public WintunTest
{
protected:
    /// The TUN interfaces of the namespace, a line each.
    static std::string tunLinks() { return linuxOutput("ip -o link show type tun"); }

    /// "1" while a program exchanges packets with it.
    static std::string queuesOf(const std::string &name)
    {
        return linuxOutput("ip -d link show dev " + name + " | grep -o ' numqueues [0-9]*' | cut -d ' ' -f 3");
    }
};

std::mutex s_logMutex;
std::vector<std::wstring> s_log;

VOID CALLBACK takeLog(WINTUN_LOGGER_LEVEL level, DWORD64 timestamp, LPCWSTR message)
{
    const std::lock_guard lock(s_logMutex);
    if (timestamp > 0)
        s_log.push_back(std::to_wstring(level) + L" " + message);
}

} // namespace

TEST_F(WintunAdapterTest, isALinkOfLinuxWithNameTypeAndGuid)
{
    const auto adapter = m_wintun.createAdapter(L"ruvo-default-tun", L"SocksTunnel", &guid);
    ASSERT_TRUE(adapter) << GetLastError();
    const std::string links = tunLinks();
    // Sixteen characters are one too many for Linux.
    EXPECT_THAT(links, HasSubstr(": ruvo-def-519a5f: "));
    EXPECT_THAT(links, HasSubstr("wintun | {12345678-9ABC-DEF0-0102-030405060708} | SocksTunnel | ruvo-default-tun"));
    EXPECT_THAT(links, HasSubstr("mtu 65535"));
    EXPECT_THAT(links, HasSubstr(",UP"));

    NET_LUID luid{};
    m_wintun.adapterLuid(adapter, &luid);
    EXPECT_THAT(links, ::testing::StartsWith(std::to_string(luid.Info.NetLuidIndex) + ": "));
    EXPECT_EQ(luid.Info.IfType, ULONG64{IF_TYPE_PROP_VIRTUAL});
    m_wintun.closeAdapter(adapter);
}

TEST_F(WintunAdapterTest, goesAwayWithTheHandleThatCreatedIt)
{
    const auto created = m_wintun.createAdapter(L"test", L"Bench", nullptr);
    ASSERT_TRUE(created);
    const auto opened = m_wintun.openAdapter(L"test");
    ASSERT_TRUE(opened);
    m_wintun.closeAdapter(opened);
    EXPECT_THAT(tunLinks(), HasSubstr(": test: "));
    m_wintun.closeAdapter(created);
    EXPECT_EQ(tunLinks(), "");
}

TEST_F(WintunAdapterTest, staysIfItWasThereBefore)
{
    ASSERT_EQ(linuxOutput("ip tuntap add dev test mode tun multi_queue && ip link set test alias "
                          "'wintun | {12345678-9abc-def0-0102-030405060708} | Bench | An older adapter'"),
              "");
    const auto adapter = m_wintun.openAdapter(L"an OLDER adapter"); // names of Windows have no case
    ASSERT_TRUE(adapter) << GetLastError();
    const auto session = m_wintun.startSession(adapter, capacity);
    EXPECT_TRUE(session) << GetLastError();
    m_wintun.endSession(session);
    m_wintun.closeAdapter(adapter);
    EXPECT_THAT(tunLinks(), HasSubstr(": test: "));
    EXPECT_EQ(linuxOutput("ip link del test"), "");
}

TEST_F(WintunAdapterTest, goesAwayWithTheProcessThatCreatedIt)
{
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring line = L"child --gtest_also_run_disabled_tests --gtest_filter=*.DISABLED_childHoldsAnAdapter";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION child{};
    ASSERT_TRUE(CreateProcessW(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
    EXPECT_EQ(
        linuxOutput("for i in $(seq 300); do ip link show child >/dev/null 2>&1 && exit; sleep 0.1; done; exit 1"),
        "");
    EXPECT_EQ(m_wintun.createAdapter(L"child", L"Bench", nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    TerminateProcess(child.hProcess, 1);
    WaitForSingleObject(child.hProcess, 10000);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    EXPECT_EQ(
        linuxOutput("for i in $(seq 100); do ip link show child >/dev/null 2>&1 || exit 0; sleep 0.1; done; exit 1"),
        "");
}

// Run by the test before it, in a process of its own that is killed.
TEST_F(WintunAdapterTest, DISABLED_childHoldsAnAdapter)
{
    ASSERT_TRUE(m_wintun.createAdapter(L"child", L"Bench", nullptr));
    Sleep(60000);
}

TEST_F(WintunAdapterTest, isRefusedIfItsNameOrGuidIsInUse)
{
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", &guid);
    ASSERT_TRUE(adapter);
    EXPECT_EQ(m_wintun.createAdapter(L"Test", L"Bench", nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(m_wintun.createAdapter(L"other", L"Bench", &guid), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    // An interface that is no adapter has the name.
    EXPECT_EQ(m_wintun.createAdapter(L"uplink", L"Bench", nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    m_wintun.closeAdapter(adapter);
}

TEST_F(WintunAdapterTest, isRefusedWithoutAUsableName)
{
    const std::wstring longest(127, L'n');
    const std::wstring tooLong = longest + L"n";
    for (const wchar_t *name : {static_cast<const wchar_t *>(nullptr), L"", tooLong.c_str()}) {
        EXPECT_EQ(m_wintun.createAdapter(name, L"Bench", nullptr), nullptr);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_EQ(m_wintun.openAdapter(name), nullptr);
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    }
    const auto adapter = m_wintun.createAdapter(longest.c_str(), L"Bench", nullptr);
    EXPECT_TRUE(adapter) << GetLastError();
    m_wintun.closeAdapter(adapter);
}

TEST_F(WintunAdapterTest, isNotFoundUnlessItExists)
{
    EXPECT_EQ(m_wintun.openAdapter(L"test"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_FOUND});
    EXPECT_EQ(m_wintun.openAdapter(L"uplink"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_FOUND});
}

TEST_F(WintunAdapterTest, isConnectedWhileASessionRuns)
{
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", nullptr);
    ASSERT_TRUE(adapter);
    EXPECT_EQ(queuesOf("test"), "0\n");
    const auto session = m_wintun.startSession(adapter, capacity);
    ASSERT_TRUE(session);
    EXPECT_EQ(queuesOf("test"), "1\n");
    m_wintun.endSession(session);
    EXPECT_EQ(queuesOf("test"), "0\n");
    m_wintun.closeAdapter(adapter);
}

TEST_F(WintunAdapterTest, hasTheKeysOfItsSettingsInTheRegistry)
{
    m_wintun.closeAdapter(m_wintun.createAdapter(L"test", L"Bench", &guid));
    for (const std::wstring service : {L"Tcpip", L"Tcpip6"}) {
        HKEY key = nullptr;
        const std::wstring path = L"SYSTEM\\CurrentControlSet\\Services\\" + service
                                  + L"\\Parameters\\Interfaces\\{12345678-9ABC-DEF0-0102-030405060708}";
        EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_WRITE, &key), ERROR_SUCCESS);
        RegCloseKey(key);
    }
}

TEST_F(WintunAdapterTest, keepsTheDriverLoaded)
{
    EXPECT_EQ(m_wintun.driverVersion(), DWORD{0});
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", nullptr);
    EXPECT_EQ(m_wintun.driverVersion(), DWORD{14});
    EXPECT_FALSE(m_wintun.deleteDriver());
    m_wintun.closeAdapter(adapter);
    EXPECT_TRUE(m_wintun.deleteDriver());
}

TEST_F(WintunAdapterTest, hasTheDriversVersionInItsFile)
{
    const std::wstring file = programFolder() / L"tun2/wintun.dll";
    std::vector<BYTE> information(GetFileVersionInfoSizeW(file.c_str(), nullptr));
    ASSERT_FALSE(information.empty()) << GetLastError();
    ASSERT_TRUE(GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(information.size()), information.data()));
    VS_FIXEDFILEINFO *version = nullptr;
    UINT size = 0;
    ASSERT_TRUE(VerQueryValueW(information.data(), L"\\", reinterpret_cast<void **>(&version), &size));
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", nullptr);
    EXPECT_EQ(version->dwFileVersionMS, m_wintun.driverVersion());
    m_wintun.closeAdapter(adapter);
    EXPECT_EQ(version->dwFileVersionLS, DWORD{0});
}

TEST_F(WintunAdapterTest, tellsTheLogger)
{
    m_wintun.setLogger(takeLog);
    m_wintun.openAdapter(L"test");
    m_wintun.closeAdapter(m_wintun.createAdapter(L"test", L"Bench", nullptr));
    m_wintun.setLogger(nullptr);
    m_wintun.openAdapter(L"test");
    EXPECT_THAT(s_log,
                ElementsAre(L"2 Failed to open adapter \"test\": error 1168", L"0 Done: create adapter \"test\""));
}

TEST_F(WintunAdapterTest, failsAsATestHasPlanned)
{
    writeBenchFile("faults.txt", "WintunCreateAdapter 2 5\nWintunOpenAdapter * 21 # always\n");
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", &guid);
    EXPECT_TRUE(adapter);
    EXPECT_EQ(m_wintun.createAdapter(L"second", L"Bench", nullptr), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{5});
    EXPECT_EQ(m_wintun.openAdapter(L"test"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{21});
    EXPECT_EQ(m_wintun.openAdapter(L"test"), nullptr);
    writeBenchFile("faults.txt", "WintunCreateAdapter 1 5\n"); // the count starts anew
    EXPECT_EQ(m_wintun.createAdapter(L"third", L"Bench", nullptr), nullptr);
    m_wintun.closeAdapter(adapter);

    EXPECT_THAT(journal("\"call\":\"WintunOpenAdapter\""),
                ElementsAre(HasSubstr(R"("name":"test","result":false,"error":21,"planned":true})"),
                            HasSubstr(R"("name":"test","result":false,"error":21,"planned":true})")));
    EXPECT_THAT(journal("WintunCreateAdapter"), Contains(HasSubstr(R"("tunnel-type":"Bench","requested-guid":)"
                                                                   R"("{12345678-9ABC-DEF0-0102-030405060708}")")));
    EXPECT_THAT(journal("WintunCloseAdapter"), ElementsAre(HasSubstr(R"("interface":"test","removed":true)")));
}

TEST_F(WintunAdapterTest, isSlowAsATestHasPlanned)
{
    writeBenchFile("faults.txt", "WintunOpenAdapter 2+ delay 200\nWintunOpenAdapter 2 21\n"
                                 "WintunOpenAdapter 2 delay 100\nWintunOpenAdapter 2 late 100\n"
                                 "WintunOpenAdapter 2 delay\n");
    const std::array<DWORD, 3> delays{0, 300, 200};
    const std::array<DWORD, 3> errors{ERROR_NOT_FOUND, 21, ERROR_NOT_FOUND};
    constexpr ULONGLONG clockStepMs = 16;
    for (std::size_t i = 0; i < delays.size(); ++i) {
        const ULONGLONG start = GetTickCount64();
        EXPECT_EQ(m_wintun.openAdapter(L"test"), nullptr);
        EXPECT_EQ(GetLastError(), errors[i]);
        EXPECT_GE(GetTickCount64() - start + clockStepMs, delays[i]);
    }
    EXPECT_THAT(journal("\"call\":\"WintunOpenAdapter\""),
                ElementsAre(Not(HasSubstr("delayed")),
                            HasSubstr(R"("delayed":300,"name":"test","result":false,"error":21,"planned":true})"),
                            HasSubstr(R"("delayed":200,"name":"test","result":false,"error":1168})")));
    EXPECT_THAT(journal("not-understood"), UnorderedElementsAre(HasSubstr("2 late 100"), HasSubstr("2 delay\"")));
}

TEST_F(WintunAdapterTest, isSlowForTheCallingThreadAlone)
{
    constexpr ULONGLONG delayMs = 1000;
    writeBenchFile("faults.txt", "WintunOpenAdapter 1 delay " + std::to_string(delayMs) + "\n");
    std::atomic<bool> isThrough = false;
    std::thread slow([&] {
        m_wintun.openAdapter(L"test");
        isThrough = true;
    });
    ULONGLONG longest = 0;
    while (!isThrough) {
        const ULONGLONG start = GetTickCount64();
        EXPECT_TRUE(m_wintun.deleteDriver());
        longest = std::max(longest, GetTickCount64() - start);
    }
    slow.join();
    EXPECT_LT(longest, delayMs / 2);
}

TEST_F(WintunAdapterTest, survivesHandlesThatAreNone)
{
    const auto adapter = m_wintun.createAdapter(L"test", L"Bench", nullptr);
    m_wintun.closeAdapter(adapter);
    m_wintun.closeAdapter(adapter);
    EXPECT_EQ(m_wintun.startSession(adapter, capacity), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_THAT(journal("misuse"), SizeIs(1));
    m_wintun.closeAdapter(nullptr);
    EXPECT_THAT(journal("misuse"), SizeIs(1));
}

} // namespace ruvo::test
