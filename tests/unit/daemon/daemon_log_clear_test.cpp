#include "daemon/daemon_log.h"

#include "daemon/log_file.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace ruvo {
namespace {

class ClearLogs : public ::testing::Test
{
protected:
    static void make(const QString &file)
    {
        QFile made(file);
        ASSERT_TRUE(made.open(QFile::WriteOnly));
        made.write("x");
    }
    /// Something that exists under the name, but cannot be removed as a file.
    static void makeUnremovable(const QString &file) { ASSERT_TRUE(QDir().mkpath(file)); }

    QString checkingMain() const { return "DEBUG Checking if main log exists: \"" + path + '"'; }
    QString checkingOld() const { return "DEBUG Checking if .old log exists: \"" + path + ".old\""; }

    const QString mainExists = "DEBUG Main log file exists, attempting to remove...";
    const QString mainRemoved = "DEBUG Successfully removed main log file";
    const QString mainFailed = "WARNING FAILED to remove main log file";
    const QString oldExists = "DEBUG .old log file exists, attempting to remove...";
    const QString oldRemoved = "DEBUG Successfully removed .old log file";
    const QString oldFailed = "WARNING FAILED to remove .old log file";
    const QString cleared = "DEBUG Daemon log files cleared successfully";
    const QString notCleared = "WARNING Failed to clear some daemon log files";

    QTemporaryDir folder;
    const QString path = folder.filePath("ruvod.log");
    test::LogCapture log;
};

TEST_F(ClearLogs, hasNothingToDoWithoutFiles)
{
    EXPECT_TRUE(clearLogFiles(path));
    EXPECT_EQ(log.lines(), (QStringList{checkingMain(), checkingOld(), cleared}));
}

TEST_F(ClearLogs, removesTheLogAndItsOldGeneration)
{
    make(path);
    make(path + ".old");
    EXPECT_TRUE(clearLogFiles(path));
    EXPECT_TRUE(QDir(folder.path()).isEmpty());
    EXPECT_EQ(log.lines(),
              (QStringList{checkingMain(), mainExists, mainRemoved, checkingOld(), oldExists, oldRemoved, cleared}));
}

TEST_F(ClearLogs, removesTheLogAlone)
{
    make(path);
    EXPECT_TRUE(clearLogFiles(path));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(log.lines(), (QStringList{checkingMain(), mainExists, mainRemoved, checkingOld(), cleared}));
}

TEST_F(ClearLogs, removesTheOldGenerationAlone)
{
    make(path + ".old");
    EXPECT_TRUE(clearLogFiles(path));
    EXPECT_FALSE(QFile::exists(path + ".old"));
    EXPECT_EQ(log.lines(), (QStringList{checkingMain(), checkingOld(), oldExists, oldRemoved, cleared}));
}

TEST_F(ClearLogs, removesTheOldGenerationEvenIfTheLogStays)
{
    makeUnremovable(path);
    make(path + ".old");
    EXPECT_FALSE(clearLogFiles(path));
    EXPECT_FALSE(QFile::exists(path + ".old"));
    EXPECT_EQ(log.lines(), (QStringList{checkingMain(), mainExists, mainFailed, checkingOld(), oldExists, oldRemoved,
                                        notCleared}));
}

TEST_F(ClearLogs, failsIfTheOldGenerationStays)
{
    make(path);
    makeUnremovable(path + ".old");
    EXPECT_FALSE(clearLogFiles(path));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(log.lines(), (QStringList{checkingMain(), mainExists, mainRemoved, checkingOld(), oldExists, oldFailed,
                                        notCleared}));
}

TEST_F(ClearLogs, failsIfBothStay)
{
    makeUnremovable(path);
    makeUnremovable(path + ".old");
    EXPECT_FALSE(clearLogFiles(path));
    EXPECT_EQ(log.lines(),
              (QStringList{checkingMain(), mainExists, mainFailed, checkingOld(), oldExists, oldFailed, notCleared}));
}

TEST_F(ClearLogs, failsWithoutAPath)
{
    EXPECT_FALSE(clearLogFiles(QString()));
    EXPECT_EQ(log.lines(), QStringList{"WARNING Log path is empty, cannot clear"});
}

TEST_F(ClearLogs, clearsThePathThatIsSet)
{
    make(path);
    setLogFilePath(path);
    EXPECT_TRUE(clearLogs());
    EXPECT_FALSE(QFile::exists(path));
    setLogFilePath(QString());
}

} // namespace
} // namespace ruvo
