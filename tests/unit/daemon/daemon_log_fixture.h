#pragma once

#include "common/log_category.h"
#include "daemon/daemon_log.h"
#include "support/standard_error_to_file.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace ruvo {

#ifdef Q_OS_WIN
inline constexpr char lineEnd[] = "\r\n";
#else
inline constexpr char lineEnd[] = "\n";
#endif

inline QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
}

inline void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QFile::WriteOnly | QFile::Truncate)) << path.toStdString();
    ASSERT_EQ(file.write(content), content.size());
}

/// The daemon's log at work, with the rule that silences debug lines, in a folder of the test.
class DaemonLogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(folder.isValid());
        // The default path stays away from the user's own data.
        qputenv("XDG_DATA_HOME", folder.filePath("data").toLocal8Bit());
#ifdef Q_OS_WIN
        QStandardPaths::setTestModeEnabled(true);
#endif
        standardErrorFile();
        installDaemonLog();
        QLoggingCategory::setFilterRules("ruvod.debug=false");
        setLogFilePath(path);
    }

    void TearDown() override
    {
        setLogFilePath(QString());
        QLoggingCategory::setFilterRules(QString());
        qInstallMessageHandler(nullptr);
    }

    /// What the log kept as standard error when it was installed for the first time: a file. The real one has been
    /// back in its place ever since.
    static QString standardErrorFile()
    {
        static const QTemporaryDir keptFolder;
        static const QString file = [] {
            const test::StandardErrorToFile redirected(keptFolder.filePath("standard-error.txt"));
            installDaemonLog();
            return keptFolder.filePath("standard-error.txt");
        }();
        return file;
    }

    static void logLines(int count, const char *text)
    {
        for (int i = 0; i < count; ++i)
            qCInfo(lcRuvod) << text;
    }

    /// Logs elsewhere until the number of all messages so far is a multiple of one hundred.
    void alignMessageCount()
    {
        const QString elsewhere = folder.filePath("elsewhere.log");
        writeFile(elsewhere, QByteArray(2000000, '-'));
        setLogFilePath(elsewhere);
        for (int i = 0; i < 100 && QFile::exists(elsewhere); ++i)
            logLines(1, "aligning");
        ASSERT_FALSE(QFile::exists(elsewhere));
        setLogFilePath(path);
    }

    QTemporaryDir folder;
    const QString path = folder.filePath("ruvod.log");
    const QString oldPath = path + ".old";
};

} // namespace ruvo
