#include "daemon/daemon_log.h"

#include "common/log_category.h"
#include "common/windows_handles.h"
#include "daemon/log_output.h"
#include "support/qt_printers.h"
#include "windows/support/call_journal.h"
#include "windows/support/signal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <atomic>
#include <thread>

namespace ruvo {
namespace {

using test::CallJournal;
using testing::ElementsAre;
using testing::IsEmpty;

/// The log with its handler; what it opens, removes and renames.
class LogFileCalls : public testing::Test
{
protected:
    LogFileCalls()
    {
        installDaemonLog();
        QLoggingCategory::setFilterRules("ruvod.debug=false");
        m_journal.watch<IMPORT(CreateFileW)>(test::FailsWith::minusOne);
        m_journal.watch<IMPORT(DeleteFileW)>();
        m_journal.watch<IMPORT(MoveFileExW)>();
        m_journal.watch<IMPORT(CreateDirectoryW)>();
        m_journal.watch<IMPORT(GetFileAttributesExW)>();
    }
    ~LogFileCalls() override
    {
        setLogFilePath(QString());
        QLoggingCategory::setFilterRules(QString());
        qInstallMessageHandler(nullptr);
    }

    /// Enough lines for a look at the size.
    static void logLines()
    {
        for (int i = 0; i < logRotationCheckInterval; ++i)
            qCInfo(lcRuvod) << "line" << i;
    }

    static std::string opening(const std::string &path)
    {
        return "CreateFileW(\"" + path + "\", 4, 7, null, 4, 0x100080, null)";
    }

    const QTemporaryDir m_folder;
    CallJournal m_journal;
};

TEST_F(LogFileCalls, neverTouchADevice)
{
    for (const char *path : {R"(\\.\pipe\ruvod-1)", R"(\\?\pipe\ruvod-1)", R"(\??\pipe\ruvod-1)", "//./pipe/ruvod-1",
                             R"(\\?\C:\ruvod.log)"}) {
        useLogFile(path);
        logLines();
        EXPECT_TRUE(clearLogs());
        EXPECT_EQ(logFilePath(), path);
    }
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(LogFileCalls, openWhatIsNoDiskFileOnceEachTimeThatItIsSet)
{
    setLogFilePath("NUL");
    logLines();
    EXPECT_TRUE(clearLogs());
    EXPECT_THAT(m_journal.lines(), ElementsAre(opening("NUL")));
    setLogFilePath("NUL");
    logLines();
    EXPECT_THAT(m_journal.lines(), ElementsAre(opening("NUL"), opening("NUL")));
}

TEST_F(LogFileCalls, writeNothingIntoAPipeThatAShareLedTo)
{
    HANDLE end = nullptr;
    HANDLE otherEnd = nullptr;
    ASSERT_TRUE(CreatePipe(&end, &otherEnd, nullptr, 0));
    const KernelHandle reader(end);
    int opened = 0;
    const test::ImportRedirection<IMPORT(CreateFileW)> createFile([&](auto...) {
        ++opened;
        return otherEnd; // the log closes it
    });
    setLogFilePath(R"(\\localhost\pipe\ruvod-1)");
    logLines();
    EXPECT_EQ(opened, 1);
    DWORD waiting = 0;
    EXPECT_FALSE(PeekNamedPipe(reader.get(), nullptr, 0, nullptr, &waiting, nullptr));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BROKEN_PIPE}) << "nothing is in there, and nobody has it open";
}

TEST_F(LogFileCalls, useThePrefixForAbsolutePathsThatAreLong)
{
    const QString name(300, 'x');
    const std::string text = name.toStdString();
    m_journal.fail("CreateFileW", ERROR_PATH_NOT_FOUND);
    m_journal.fail("DeleteFileW", ERROR_FILE_NOT_FOUND);
    m_journal.fail("MoveFileExW", ERROR_FILE_NOT_FOUND);
    appendTextToFile("C:/logs/./daemon/../" + name, "x");
    appendTextToFile(R"(\\server\share/logs\)" + name, "x");
    appendTextToFile("relative/" + name, "x");
    removeFile("C:/logs/" + name);
    renameFile("C:/" + QString(256, 'x'), "C:/" + QString(257, 'x'));
    EXPECT_THAT(m_journal.lines(),
                ElementsAre(opening(R"(\\?\C:\logs\)" + text), opening(R"(\\?\UNC\server\share\logs\)" + text),
                            opening(R"(relative\)" + text), R"(DeleteFileW("\\?\C:\logs\)" + text + "\")",
                            "MoveFileExW(\"C:\\" + std::string(256, 'x') + R"(", "\\?\C:\)" + std::string(257, 'x')
                                + "\", 0)"));
}

TEST_F(LogFileCalls, rotateOnOneThreadAtATime)
{
    const QString path = m_folder.filePath("ruvod.log");
    QFile large(path);
    ASSERT_TRUE(large.open(QFile::WriteOnly));
    large.write(QByteArray(logRotationThreshold + 1, 'x'));
    large.close();
    setLogFilePath(path);

    // One thread stands between its look at the size and the rename while others log on.
    test::Signal inside;
    test::Signal release;
    std::atomic<int> removals = 0;
    const test::ImportRedirection<IMPORT(DeleteFileW)> deleteFile([&](LPCWSTR name) {
        if (++removals == 1) {
            inside.set();
            EXPECT_TRUE(release.wait());
        }
        return deleteFile.real(name);
    });
    std::jthread rotating([] { logLines(); });
    ASSERT_TRUE(inside.wait());
    logLines();
    logLines();
    EXPECT_EQ(removals, 1);
    release.set();
    rotating.join();
    EXPECT_GT(QFileInfo(path + ".old").size(), logRotationThreshold);
    EXPECT_EQ(removals, 1);

    // And it is not the last rotation. (Set anew, as a machine that took a second for this has shut the file.)
    setLogFilePath(QString());
    setLogFilePath(path);
    ASSERT_TRUE(large.open(QFile::WriteOnly));
    large.write(QByteArray(logRotationThreshold + 1, 'y'));
    large.close();
    logLines();
    EXPECT_EQ(removals, 2);
}

} // namespace
} // namespace ruvo
