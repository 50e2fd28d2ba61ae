#include "daemon_log_fixture.h"

#include "support/log_capture.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <cstdlib>
#include <utility>

namespace ruvo {
namespace {

/// Destroyed after everything that is made while the program runs.
struct LastOfAll
{
    ~LastOfAll()
    {
        if (logs)
            qCInfo(lcRuvod) << "from a thread that was left behind";
    }
    bool logs = false;
};
LastOfAll s_lastOfAll;

// The line

TEST(FormatLogLine, putsLocalTimeLevelAndMessageInALine)
{
    const QDateTime time(QDate(2024, 2, 3), QTime(4, 5, 6, 7));
    EXPECT_EQ(formatLogLine(QtInfoMsg, "Daemon stopped", time), "[2024-02-03 04:05:06.007] INFO: Daemon stopped\n");
    EXPECT_EQ(formatLogLine(QtInfoMsg, "", QDateTime(QDate(2024, 12, 31), QTime(23, 59, 59, 999))),
              "[2024-12-31 23:59:59.999] INFO: \n");
}

TEST(FormatLogLine, hasAWordForEachLevelAndNoneForOthers)
{
    const QDateTime time(QDate(2024, 2, 3), QTime(4, 5, 6, 7));
    constexpr auto unknown = static_cast<QtMsgType>(7);
    const std::pair<QtMsgType, QByteArray> words[] = {
        {QtDebugMsg, "DEBUG"},       {QtInfoMsg, "INFO"},   {QtWarningMsg, "WARNING"},
        {QtCriticalMsg, "CRITICAL"}, {QtFatalMsg, "FATAL"}, {unknown, ""},
    };
    for (const auto &[type, word] : words)
        EXPECT_EQ(formatLogLine(type, "x", time), "[2024-02-03 04:05:06.007] " + word + ": x\n");
}

TEST(FormatLogLine, keepsWhateverTheMessageContains)
{
    const QDateTime time(QDate(2024, 2, 3), QTime(4, 5, 6, 7));
    EXPECT_EQ(formatLogLine(QtInfoMsg, "%1 %2 %3 100%", time), "[2024-02-03 04:05:06.007] INFO: %1 %2 %3 100%\n");
    EXPECT_EQ(formatLogLine(QtInfoMsg, QString::fromUtf8("✓ Müller"), time),
              "[2024-02-03 04:05:06.007] INFO: ✓ Müller\n");
}

// Where it goes

TEST(DefaultLogFilePath, isBelowTheDataFolderAndMakesItsFolders)
{
    const QTemporaryDir folder;
    const QString expected = QDir::toNativeSeparators(folder.path() + "/data/Ruvo/logs/ruvod.log");
    EXPECT_EQ(defaultLogFilePath(folder.path() + "/data"), expected);
    EXPECT_TRUE(QFileInfo(folder.path() + "/data/Ruvo/logs").isDir());
    QDir(folder.path() + "/data").removeRecursively();
    EXPECT_EQ(defaultLogFilePath(folder.path() + "/data"), expected);
    EXPECT_TRUE(QFileInfo(folder.path() + "/data/Ruvo/logs").isDir()) << "each time it is asked for";
}

TEST(DefaultLogFilePath, isNoneWithoutADataFolder)
{
    EXPECT_EQ(defaultLogFilePath(QString()), QString());
}

TEST_F(DaemonLogTest, goesToTheDefaultPathUntilAnotherIsSet)
{
    setLogFilePath(QString());
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const QString expected = QDir::toNativeSeparators(data + "/Ruvo/logs/ruvod.log");
    EXPECT_EQ(logFilePath(), expected);
    QFile::remove(expected);
    qCInfo(lcRuvod) << "early";
    EXPECT_TRUE(contentOf(expected).endsWith(QByteArray("INFO: early") + lineEnd));
    setLogFilePath(path);
    EXPECT_EQ(logFilePath(), path);
    qCInfo(lcRuvod) << "later";
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("INFO: later") + lineEnd));
    EXPECT_FALSE(contentOf(expected).contains("later"));
    QFile::remove(expected);
}

TEST(SetLogFilePath, isLoggedAtDebugLevel)
{
    test::LogCapture log;
    setLogFilePath("some/path.log");
    EXPECT_EQ(log.lines(), QStringList{R"(DEBUG Daemon log path set to: "some/path.log")"});
    setLogFilePath(QString());
}

TEST_F(DaemonLogTest, aHelloMakesTheFoldersOfItsPath)
{
    const QString nested = folder.filePath("a/b ü/c/client.log");
    useLogFile(nested);
    EXPECT_EQ(logFilePath(), nested);
    EXPECT_TRUE(QFileInfo(folder.filePath("a/b ü/c")).isDir());
    qCInfo(lcRuvod) << "hello";
    EXPECT_TRUE(contentOf(nested).endsWith(QByteArray("INFO: hello") + lineEnd));
}

TEST_F(DaemonLogTest, theLastPathThatWasSetDecides)
{
    useLogFile(folder.filePath("first.log"));
    useLogFile(folder.filePath("second.log"));
    qCInfo(lcRuvod) << "hello";
    EXPECT_FALSE(QFile::exists(folder.filePath("first.log")));
    EXPECT_TRUE(contentOf(folder.filePath("second.log")).contains("hello"));
}

// Messages

TEST_F(DaemonLogTest, writesEachMessageToTheFileAndToStandardError)
{
    const qsizetype before = contentOf(standardErrorFile()).size();
    qCInfo(lcRuvod) << "text" << QString("value") << 7;
    qCWarning(lcRuvod) << "careful";
    qCCritical(lcRuvod) << "broken";
    qWarning("of Qt");

    const QString pattern = "\\A\\[T\\] INFO: text \"value\" 7E\\[T\\] WARNING: carefulE\\[T\\] CRITICAL: brokenE"
                            "\\[T\\] WARNING: of QtE\\z";
    const auto matches = [&](const QByteArray &text, const char *end) {
        QString expected = pattern;
        expected.replace("T\\", "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\")
            .replace("E\\", QString(end) + '\\');
        return QRegularExpression(expected).match(QString::fromUtf8(text)).hasMatch();
    };
    EXPECT_TRUE(matches(contentOf(path), lineEnd)) << contentOf(path).toStdString();
    const QByteArray standardError = contentOf(standardErrorFile()).mid(before);
    EXPECT_TRUE(matches(standardError, "\n")) << standardError.toStdString();
}

TEST_F(DaemonLogTest, writesUtf8AndTheSystemsLineEndsInsideOfAMessageToo)
{
    qCInfo(lcRuvod).noquote() << QString::fromUtf8("✓ Müller\nsecond");
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("INFO: ✓ Müller") + lineEnd + "second" + lineEnd));
    EXPECT_EQ(contentOf(path).count('\n'), 2);
}

TEST_F(DaemonLogTest, saysTheLocalTime)
{
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    qCInfo(lcRuvod) << "now";
    const QString text = QString::fromLatin1(contentOf(path).mid(1, 23));
    const QDateTime time = QDateTime::fromString(text, "yyyy-MM-dd hh:mm:ss.zzz");
    EXPECT_TRUE(time >= before && time <= QDateTime::currentDateTime()) << text.toStdString();
}

TEST_F(DaemonLogTest, debugLinesAppearNowhereByDefault)
{
    const qsizetype before = contentOf(standardErrorFile()).size();
    qCDebug(lcRuvod) << "silent";
    setLogFilePath(path);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(contentOf(standardErrorFile()).size(), before);
}

TEST_F(DaemonLogTest, debugLinesAppearWhenTheRuleIsLifted)
{
    QLoggingCategory::setFilterRules("ruvod.debug=true");
    qCDebug(lcRuvod) << "chatty";
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("DEBUG: chatty") + lineEnd));
}

TEST_F(DaemonLogTest, aFatalMessageIsWrittenBeforeTheProcessEnds)
{
    // The process that dies may be another one, which runs this test up to here; it has the path from its parent.
    if (!qEnvironmentVariableIsSet("RUVOD_TEST_FATAL_LOG"))
        qputenv("RUVOD_TEST_FATAL_LOG", path.toUtf8());
    const QString fatalLog = qEnvironmentVariable("RUVOD_TEST_FATAL_LOG");
    EXPECT_DEATH(
        {
            setLogFilePath(fatalLog);
            qFatal("the end");
        },
        "");
    qunsetenv("RUVOD_TEST_FATAL_LOG");
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("FATAL: the end") + lineEnd)) << contentOf(path).toStdString();
}

TEST_F(DaemonLogTest, takesLinesWhileTheProgramsDataIsDestroyed)
{
    // In a program of its own, as a copy of this one would take our temporary files with it.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (!qEnvironmentVariableIsSet("RUVOD_TEST_LAST_LOG"))
        qputenv("RUVOD_TEST_LAST_LOG", path.toUtf8());
    const QString lastLog = qEnvironmentVariable("RUVOD_TEST_LAST_LOG");
    EXPECT_EXIT(
        {
            setLogFilePath(lastLog);
            s_lastOfAll.logs = true;
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    qunsetenv("RUVOD_TEST_LAST_LOG");
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("INFO: from a thread that was left behind") + lineEnd))
        << contentOf(path).toStdString();
}

// Trouble with the file

TEST_F(DaemonLogTest, aFileThatCannotBeWrittenChangesNothingElse)
{
    const qsizetype before = contentOf(standardErrorFile()).size();
    setLogFilePath(folder.filePath("no such folder/ruvod.log"));
    logLines(150, "into the void");
    setLogFilePath(folder.path());
    logLines(150, "at a folder");
    EXPECT_FALSE(QFileInfo::exists(folder.filePath("no such folder")));
    setLogFilePath(path);
    qCInfo(lcRuvod) << "back";
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("INFO: back") + lineEnd));
    EXPECT_EQ(contentOf(standardErrorFile()).mid(before).count('\n'), 301);
}

TEST_F(DaemonLogTest, aFileThatWasRemovedIsMadeAnew)
{
    qCInfo(lcRuvod) << "first";
    ASSERT_TRUE(QFile::remove(path)) << "it is closed after each line";
    qCInfo(lcRuvod) << "second";
    EXPECT_FALSE(contentOf(path).contains("first"));
    EXPECT_TRUE(contentOf(path).contains("second"));
}

TEST_F(DaemonLogTest, aFileThatWasMovedAsideIsMadeAnew)
{
    qCInfo(lcRuvod) << "first";
    ASSERT_TRUE(QFile::rename(path, folder.filePath("aside")));
    qCInfo(lcRuvod) << "second";
    EXPECT_EQ(contentOf(path).count('\n'), 1);
    EXPECT_EQ(contentOf(folder.filePath("aside")).count('\n'), 1);
}

TEST_F(DaemonLogTest, aFolderThatVanishedHarmsNothing)
{
    const QString nested = folder.filePath("gone/ruvod.log");
    useLogFile(nested);
    qCInfo(lcRuvod) << "first";
    ASSERT_TRUE(QDir(folder.filePath("gone")).removeRecursively());
    logLines(150, "into the void");
    ASSERT_TRUE(QDir().mkpath(folder.filePath("gone")));
    qCInfo(lcRuvod) << "second";
    EXPECT_EQ(contentOf(nested).count('\n'), 1);
}

} // namespace
} // namespace ruvo
