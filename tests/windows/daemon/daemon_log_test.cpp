#include "daemon/daemon_log.h"

#include "common/log_category.h"
#include "support/qt_printers.h"
#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <algorithm>

namespace ruvo {
namespace {

using test::CallJournal;
using test::ChildProgram;

QByteArray fileContent(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
}

/// As the daemon does.
void hideDebugLines()
{
    QLoggingCategory::setFilterRules("ruvod.debug=false");
}

/// Messages of log lines, without their times.
QStringList messages(const QByteArray &text)
{
    constexpr qsizetype timeLength = sizeof("[yyyy-MM-dd hh:mm:ss.zzz] ") - 1;
    QStringList messages;
    for (const QByteArray &line : text.split('\n')) {
        if (!line.isEmpty())
            messages.append(QString::fromUtf8(line.mid(timeLength)));
    }
    return messages;
}

/// Logs from the first thread, where nothing of Qt exists yet.
const ChildProgram s_earlyLog("early-log", [](const QStringList &arguments) {
    installDaemonLog();
    hideDebugLines();
    setLogFilePath(arguments.first());
    qCCritical(lcRuvod) << "early";
    qCWarning(lcRuvod) << "still early";
    return 0;
});

TEST(DaemonLogOnWindows, takesLinesFromTheFirstThreadBeforeAnyQtObject)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("ruvod.log");
    const test::ChildResult child = test::runChild("early-log", {path});
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(messages(child.errors), QStringList({"CRITICAL: early", "WARNING: still early"}));
    EXPECT_EQ(fileContent(path).replace("\r\n", "\n"), child.errors);
}

/// Loses its console and its standard error, as sending Ctrl+C to a child does.
const ChildProgram s_consoleChanges("console-changes", [](const QStringList &arguments) {
    installDaemonLog();
    hideDebugLines();
    setLogFilePath(arguments.first());
    qCInfo(lcRuvod) << "before";
    const HANDLE standardError = GetStdHandle(STD_ERROR_HANDLE);
    FreeConsole();
    AttachConsole(ATTACH_PARENT_PROCESS);
    SetStdHandle(STD_ERROR_HANDLE, INVALID_HANDLE_VALUE);
    CloseHandle(standardError);
    qCInfo(lcRuvod) << "after";
    installDaemonLog();
    qCInfo(lcRuvod) << "installed again";
    return 0;
});

TEST(DaemonLogOnWindows, keepsStandardErrorWhateverHappensToTheConsole)
{
    const QTemporaryDir folder;
    const test::ChildResult child = test::runChild("console-changes", {folder.filePath("ruvod.log")});
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(messages(child.errors), QStringList({"INFO: before", "INFO: after", "INFO: installed again"}));
}

/// The log with its handler, writing to a file of its own.
class DaemonLogFile : public testing::Test
{
protected:
    DaemonLogFile()
    {
        installDaemonLog();
        hideDebugLines();
        setLogFilePath(m_path);
    }
    ~DaemonLogFile() override
    {
        setLogFilePath(QString());
        QLoggingCategory::setFilterRules(QString());
        qInstallMessageHandler(nullptr);
    }

    const QTemporaryDir m_folder;
    const QString m_path = m_folder.filePath("ruvod.log");
};

TEST_F(DaemonLogFile, getsEachLineInOneAppendingWrite)
{
    CallJournal journal;
    journal.watch<IMPORT(CreateFileW)>(test::FailsWith::minusOne);
    journal.watch<IMPORT(WriteFile)>();
    journal.watch<IMPORT(CloseHandle)>();
    qCInfo(lcRuvod) << "one";
    qCWarning(lcRuvod).noquote() << QString("two\nlines");

    const std::string open =
        "CreateFileW(\"" + QDir::toNativeSeparators(m_path).toStdString()
        + "\", 4, 7, null, 4, 0x100080, null)"; // FILE_APPEND_DATA, shared with everybody, OPEN_ALWAYS, anonymous
    const std::vector<std::string> lines = journal.lines();
    EXPECT_EQ(journal.count(open), 2u);
    for (auto call = std::ranges::find(lines, open); call != lines.end();
         call = std::find(call + 1, lines.end(), open)) {
        ASSERT_GE(lines.end() - call, 3);
        EXPECT_TRUE((call + 1)->starts_with("WriteFile(")) << *(call + 1);
        EXPECT_TRUE((call + 2)->starts_with("CloseHandle(")) << *(call + 2);
    }
    // And one to standard error, for each line.
    EXPECT_EQ(std::ranges::count_if(lines, [](const std::string &line) { return line.starts_with("WriteFile("); }),
              4);
    EXPECT_THAT(journal.unclosed({"CreateFileW"}, "CloseHandle"), testing::IsEmpty());
    EXPECT_EQ(fileContent(m_path).count("\r\n"), 3);
    EXPECT_TRUE(fileContent(m_path).endsWith("WARNING: two\r\nlines\r\n"));
}

TEST_F(DaemonLogFile, mayBeMovedAndRemovedBetweenTwoLines)
{
    qCInfo(lcRuvod) << "one";
    EXPECT_TRUE(QFile::rename(m_path, m_path + ".moved"));
    qCInfo(lcRuvod) << "two";
    EXPECT_TRUE(QFile::remove(m_path));
    qCInfo(lcRuvod) << "three";
    EXPECT_EQ(messages(fileContent(m_path).replace("\r\n", "\n")), QStringList("INFO: three"));
}

TEST_F(DaemonLogFile, isLookedForUnderTheAccountsDataAgainWhenThePathIsReset)
{
    setLogFilePath(QString());
    EXPECT_TRUE(logFilePath().endsWith("\\Ruvo\\logs\\ruvod.log")) << logFilePath().toStdString();
    EXPECT_FALSE(logFilePath().contains(u'/'));
}

} // namespace
} // namespace ruvo
