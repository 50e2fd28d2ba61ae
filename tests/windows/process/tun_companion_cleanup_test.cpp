// The removal of a left-over device, with a pnputil.exe that writes down how it was called.

#include "process/tun_companion.h"

#include "common/windows_handles.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/process/fake_adapters.h"
#include "windows/support/own_resources.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

namespace ruvo {
namespace {

const QString guid = "{01234567-89AB-CDEF-0123-456789ABCDEF}";
const QString cleaning = "INFO [ProcessManager] Cleaning up TUN interface with GUID: \"" + guid + '"';

/// A Windows folder with the recording pnputil.exe in it.
class TunCompanionCleanup : public ::testing::Test
{
protected:
    TunCompanionCleanup()
    {
        const QString pnputil = QCoreApplication::applicationDirPath() + "/../../winehost/pnputil/pnputil.exe";
        EXPECT_TRUE(m_windows.isValid() && QDir(m_windows.path()).mkpath("System32"));
        EXPECT_TRUE(QFile::copy(pnputil, m_windows.filePath("System32/pnputil.exe")));
        qputenv("WINDIR", QDir::toNativeSeparators(m_windows.path()).toUtf8());
        qputenv("RUVO_PNPUTIL_FOLDER", QDir::toNativeSeparators(m_windows.path()).toUtf8());
    }
    ~TunCompanionCleanup() override
    {
        qputenv("WINDIR", m_windirBefore);
        qunsetenv("RUVO_PNPUTIL_FOLDER");
    }

    /// What the tool does when it is called: see its control file.
    void control(const QByteArray &text)
    {
        QFile file(m_windows.filePath("pnputil.control"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
    }
    QList<QJsonObject> calls() const
    {
        QFile file(m_windows.filePath("pnputil.jsonl"));
        QList<QJsonObject> calls;
        if (!file.open(QIODevice::ReadOnly))
            return calls;
        while (!file.atEnd())
            calls.append(QJsonDocument::fromJson(file.readLine()).object());
        return calls;
    }
    void removeTool() { ASSERT_TRUE(QFile::remove(m_windows.filePath("System32/pnputil.exe"))); }

    test::FakeAdapters adapters{{{L"ruvo-tun", guid.toStdString(), false}}};
    test::LogCapture log;
    TunCompanion companion;

private:
    const QByteArray m_windirBefore = qgetenv("WINDIR");
    QTemporaryDir m_windows;
};

TEST_F(TunCompanionCleanup, removesTheDeviceOfTheAdapter)
{
    companion.cleanupTunInterface("ruvo-tun");
    ASSERT_EQ(calls().size(), 1);
    EXPECT_EQ(calls().first()["arguments"].toArray(), (QJsonArray{"/remove-device", R"(SWD\Wintun\)" + guid}));
    EXPECT_EQ(log.lines().mid(1), QStringList({
                                      cleaning,
                                      "INFO [ProcessManager] TUN interface removed successfully",
                                  }));
}

TEST_F(TunCompanionCleanup, addsTheBracesThatAreMissing)
{
    adapters.adapters.front().guid = "0-1-2";
    companion.cleanupTunInterface("ruvo-tun");
    ASSERT_EQ(calls().size(), 1);
    EXPECT_EQ(calls().first()["arguments"].toArray().last().toString(), R"(SWD\Wintun\{0-1-2})");
}

TEST_F(TunCompanionCleanup, doesNothingWithoutAnAdapterOfThatName)
{
    adapters.adapters.front().name = L"Ruvo-Tun";
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_TRUE(calls().isEmpty());
    EXPECT_EQ(log.lines(), QStringList({
                               R"(DEBUG [ProcessManager] Interface not found: "ruvo-tun")",
                               R"(DEBUG [ProcessManager] No TUN interface found to cleanup for: "ruvo-tun")",
                           }));
}

TEST_F(TunCompanionCleanup, doesNothingWhereAdaptersCannotBeListed)
{
    adapters.listResult = ERROR_NOT_ENOUGH_MEMORY;
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_TRUE(calls().isEmpty());
    EXPECT_EQ(log.lines().last(), R"(DEBUG [ProcessManager] No TUN interface found to cleanup for: "ruvo-tun")");
}

TEST_F(TunCompanionCleanup, tellsWhatAToolThatFailsSays)
{
    control("stdout not this\nstderr   no such device  \nexit 259\n");
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_EQ(log.lines().last(), R"(WARNING [ProcessManager] Failed to remove TUN interface: "no such device")");
    EXPECT_FALSE(log.contains("successfully"));
}

TEST_F(TunCompanionCleanup, failsWithAToolThatFailsAndSaysNothing)
{
    control("exit 1\n");
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_EQ(log.lines().last(), R"(WARNING [ProcessManager] Failed to remove TUN interface: "")");
}

TEST_F(TunCompanionCleanup, succeedsWithAToolThatOnlyGrumbles)
{
    control("stderr a restart is needed\nexit 0\n");
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_EQ(log.lines().last(), "INFO [ProcessManager] TUN interface removed successfully");
}

TEST_F(TunCompanionCleanup, waitsForASlowTool)
{
    control("delay 1500\n");
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_EQ(log.lines().last(), "INFO [ProcessManager] TUN interface removed successfully");
}

TEST_F(TunCompanionCleanup, failsWithoutTheTool)
{
    removeTool();
    QElapsedTimer timer;
    timer.start();
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_LT(timer.elapsed(), 4900);
    EXPECT_EQ(log.linesWith("WARNING").size(), 1);
    EXPECT_TRUE(log.lines().last().startsWith(
        R"(WARNING [ProcessManager] Failed to remove TUN interface: "Process failed to start)"))
        << log.lines().last().toStdString();
}

TEST_F(TunCompanionCleanup, endsAToolThatHangsAfterFiveSeconds)
{
    control("hang\n");
    QElapsedTimer timer;
    timer.start();
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_GE(timer.elapsed(), 4990);
    EXPECT_LT(timer.elapsed(), 15000);
    EXPECT_EQ(log.lines().last(),
              R"(WARNING [ProcessManager] Failed to remove TUN interface: "Process operation timed out")");
    ASSERT_EQ(calls().size(), 1);
    const auto pid = static_cast<DWORD>(calls().first()["pid"].toInt());
    const KernelHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
    EXPECT_TRUE(!process || WaitForSingleObject(process.get(), 1000) == WAIT_OBJECT_0);
}

TEST_F(TunCompanionCleanup, leavesAToolBehindThatCannotBeEndedAndItsObjectToItsEnd)
{
    companion.cleanupTunInterface("ruvo-tun"); // what a first run opens for good
    control("hang\n");
    const std::size_t handles = test::countOwnHandles();
    QElapsedTimer timer;
    timer.start();
    {
        const test::ImportRedirection<IMPORT(TerminateProcess)> terminate([](HANDLE, UINT) { return TRUE; });
        companion.cleanupTunInterface("ruvo-tun");
    }
    EXPECT_GE(timer.elapsed(), 5990);
    EXPECT_LT(timer.elapsed(), 15000); // and not the half minute of a QProcess that is destroyed
    EXPECT_EQ(log.linesWith("WARNING"),
              QStringList({
                  "WARNING [ProcessManager] pnputil.exe did not end within 1000 ms of its kill, leaving it behind",
                  R"(WARNING [ProcessManager] Failed to remove TUN interface: "Process operation timed out")",
              }));
    EXPECT_GT(test::countOwnHandles(), handles);

    ASSERT_EQ(calls().size(), 2);
    const KernelHandle tool(OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(calls()[1]["pid"].toInt())));
    ASSERT_TRUE(TerminateProcess(tool.get(), 1));
    EXPECT_TRUE(test::waitForHandles(handles + 1)); // the test's own: the object is gone
}

TEST_F(TunCompanionCleanup, takesTheToolOfTheUsualFolderWithoutWindir)
{
    qunsetenv("WINDIR");
    QString commandLine;
    const test::ImportRedirection<IMPORT(CreateProcessW)> createProcess(
        [&](LPCWSTR, LPWSTR line, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR,
            LPSTARTUPINFOW, LPPROCESS_INFORMATION) {
            commandLine = QString::fromWCharArray(line);
            SetLastError(ERROR_FILE_NOT_FOUND);
            return FALSE;
        });
    companion.cleanupTunInterface("ruvo-tun");
    EXPECT_EQ(commandLine.simplified(), R"(C:\Windows\System32\pnputil.exe /remove-device SWD\Wintun\)" + guid);
}

} // namespace
} // namespace ruvo
