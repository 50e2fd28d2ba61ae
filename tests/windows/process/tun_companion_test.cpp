#include "process/tun_companion.h"

#include "common/windows_handles.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/process/fake_adapters.h"
#include "windows/support/call_journal.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

namespace ruvo {
namespace {

constexpr auto guid = "01234567-89AB-CDEF-0123-456789ABCDEF";
const std::string bracedGuid = std::string("{") + guid + "}";
const std::wstring keyPath =
    LR"(SYSTEM\CurrentControlSet\Services\Tcpip\Parameters\Interfaces\{01234567-89AB-CDEF-0123-456789ABCDEF})";

class TunCompanionTest : public ::testing::Test
{
protected:
    test::FakeAdapters adapters{
        {{L"Ethernet", "{11111111-0000-0000-0000-000000000000}", true}, {L"ruvo-tun", bracedGuid, true}}};
    test::LogCapture log;
    TunCompanion companion;
};

using InterfaceGuid = TunCompanionTest;

TEST_F(InterfaceGuid, isFoundByTheExactName)
{
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), guid);
    EXPECT_EQ(log.lines(), QStringList({QString(R"(DEBUG [ProcessManager] Found interface GUID: "%1")").arg(guid)}));
}

TEST_F(InterfaceGuid, isThatOfTheFirstAdapterOfTheName)
{
    adapters.adapters.push_back({L"ruvo-tun", "{2}", true});
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), guid);
}

TEST_F(InterfaceGuid, isFoundOfAnAdapterThatIsDownToo)
{
    adapters.adapters[1].up = false;
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), guid);
}

TEST_F(InterfaceGuid, isEmptyForANameThatDiffersInCase)
{
    EXPECT_EQ(companion.getInterfaceGuid("Ruvo-Tun"), "");
    EXPECT_EQ(log.lines(), QStringList({R"(DEBUG [ProcessManager] Interface not found: "Ruvo-Tun")"}));
}

TEST_F(InterfaceGuid, losesItsBracesOnlyAsAPair)
{
    adapters.adapters[1].guid = "{half";
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), "{half");
    adapters.adapters[1].guid = "half}";
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), "half}");
    adapters.adapters[1].guid = "none";
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), "none");
}

TEST_F(InterfaceGuid, isEmptyWhereTheSizeCannotBeAsked)
{
    // A machine without adapters; or, oddly, one whose list takes no room.
    for (const ULONG result : {ULONG{ERROR_NO_DATA}, ULONG{NO_ERROR}}) {
        adapters.sizeResult = result;
        log.clear();
        EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), "");
        EXPECT_EQ(log.lines(),
                  QStringList({"WARNING [ProcessManager] GetAdaptersAddresses failed to get buffer size: "
                               + QString::number(result)}));
    }
}

TEST_F(InterfaceGuid, isEmptyWhereTheListCannotBeAsked)
{
    adapters.listResult = ERROR_NOT_ENOUGH_MEMORY;
    EXPECT_EQ(companion.getInterfaceGuid("ruvo-tun"), "");
    EXPECT_EQ(log.lines(), QStringList({"WARNING [ProcessManager] GetAdaptersAddresses failed: 8"}));
}

class InterfaceDns : public TunCompanionTest
{
protected:
    InterfaceDns()
    {
        journal.watch<IMPORT(RegOpenKeyExW)>(
            [this](HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key) -> LSTATUS {
                EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                EXPECT_EQ(path, keyPath);
                EXPECT_EQ(options, 0u);
                EXPECT_EQ(access, REGSAM{KEY_SET_VALUE});
                *key = s_key;
                return ERROR_SUCCESS;
            },
            test::FailsWith::errorCode);
        journal.watch<IMPORT(RegSetValueExW)>(
            [this](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE *data, DWORD size) -> LSTATUS {
                EXPECT_EQ(key, s_key);
                EXPECT_EQ(std::wstring(name), L"NameServer");
                EXPECT_EQ(reserved, 0u);
                EXPECT_EQ(type, DWORD{REG_SZ});
                written = QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
                return ERROR_SUCCESS;
            },
            test::FailsWith::errorCode);
        journal.watch<IMPORT(RegCloseKey)>([this](HKEY key) -> LSTATUS {
            EXPECT_EQ(key, s_key);
            ++closed;
            return ERROR_SUCCESS;
        });
    }

    /// UTF-16 with a terminating zero.
    static QByteArray wide(const QString &text)
    {
        return QByteArray(reinterpret_cast<const char *>(text.utf16()), (text.size() + 1) * 2);
    }
    QStringList linesAfterTheWait() const
    {
        return log.lines().filter(QRegularExpression("registry|DNS (server|-)|Cannot"));
    }

    inline static const HKEY s_key = reinterpret_cast<HKEY>(0x777);
    test::CallJournal journal;
    QByteArray written;
    int closed = 0;
};

TEST_F(InterfaceDns, isWrittenIntoTheAdaptersSettings)
{
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun");
    EXPECT_EQ(written, wide("172.19.0.2"));
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(log.lines().first(),
              R"(INFO [ProcessManager] Configuring DNS for interface "ruvo-tun" to "172.19.0.2")");
    EXPECT_TRUE(log.contains(R"(Waiting for interface "ruvo-tun" to be UP (max 10000 ms))"));
    EXPECT_EQ(log.lines().last(), R"(INFO [ProcessManager] DNS server set successfully to "172.19.0.2" )"
                                  R"(for interface "ruvo-tun")");
}

TEST_F(InterfaceDns, isWrittenAsItWasReceived)
{
    companion.configureInterfaceDns("no address é, at all", "ruvo-tun");
    EXPECT_EQ(written, wide("no address é, at all"));
}

TEST_F(InterfaceDns, isNotWrittenWhereTheAdapterGoesRightAfterItCameUp)
{
    adapters.onQuery = [this](int number) {
        if (number == 2)
            adapters.adapters.clear();
    };
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun");
    EXPECT_EQ(linesAfterTheWait(),
              QStringList({"WARNING [ProcessManager] Cannot set DNS - failed to get interface GUID"}));
    EXPECT_TRUE(journal.lines().empty());
}

TEST_F(InterfaceDns, isNotWrittenWhereTheKeyCannotBeOpened)
{
    journal.fail("RegOpenKeyExW", ERROR_ACCESS_DENIED);
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun");
    EXPECT_EQ(linesAfterTheWait(), QStringList({"WARNING [ProcessManager] Failed to open registry key: 5"}));
    EXPECT_EQ(closed, 0);
}

TEST_F(InterfaceDns, closesTheKeyThatCannotBeWritten)
{
    journal.fail("RegSetValueExW", ERROR_ACCESS_DENIED);
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun");
    EXPECT_EQ(linesAfterTheWait(),
              QStringList({"WARNING [ProcessManager] Failed to set NameServer registry value: 5"}));
    EXPECT_EQ(closed, 1);
}

TEST_F(InterfaceDns, isNotWrittenToAnAdapterThatStaysDown)
{
    adapters.adapters[1].up = false;
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun"); // for 10 s
    EXPECT_EQ(linesAfterTheWait(),
              QStringList({R"(WARNING [ProcessManager] Cannot set DNS - interface "ruvo-tun" not found)"}));
    EXPECT_TRUE(journal.lines().empty());
}

TEST_F(TunCompanionTest, writesTheRealRegistry)
{
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_READ, nullptr,
                              &key, nullptr),
              ERROR_SUCCESS);
    const RegistryKey owner(key);
    companion.configureInterfaceDns("172.19.0.2", "ruvo-tun");
    wchar_t value[64] = {};
    DWORD type = 0;
    DWORD size = sizeof(value);
    EXPECT_EQ(RegQueryValueExW(key, L"NameServer", nullptr, &type, reinterpret_cast<BYTE *>(value), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, DWORD{REG_SZ});
    EXPECT_EQ(size, 22u);
    EXPECT_EQ(std::wstring(value), L"172.19.0.2");
    EXPECT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, keyPath.c_str()), ERROR_SUCCESS);
}

} // namespace
} // namespace ruvo
