#include "daemon_log_fixture.h"

#include <QFileInfo>

#include <utility>

namespace ruvo {
namespace {

class DaemonLogRotation : public DaemonLogTest
{
protected:
    void SetUp() override
    {
        DaemonLogTest::SetUp();
        alignMessageCount();
    }
    /// The size of a line of logLines in the file.
    static qint64 lineSize(const char *text)
    {
        return formatLogLine(QtInfoMsg, text, QDateTime::currentDateTime()).size()
               + static_cast<qint64>(sizeof(lineEnd) - sizeof("\n"));
    }
    /// The hundredth message since the last look at the size makes the file this large.
    void growWithTheHundredthMessageTo(qint64 size)
    {
        logLines(99, "before");
        writeFile(path, QByteArray(size - lineSize("hundredth"), 'x'));
        logLines(1, "hundredth");
    }
};

TEST_F(DaemonLogRotation, leavesAFileOfExactlyOneMebibyte)
{
    growWithTheHundredthMessageTo(1048576);
    EXPECT_EQ(QFileInfo(path).size(), 1048576);
    EXPECT_FALSE(QFile::exists(oldPath));
}

TEST_F(DaemonLogRotation, movesAFileOfOneByteMoreAsideWithTheHundredthMessage)
{
    growWithTheHundredthMessageTo(1048577);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(QFileInfo(oldPath).size(), 1048577);
    EXPECT_TRUE(contentOf(oldPath).endsWith(QByteArray("INFO: hundredth") + lineEnd));

    logLines(1, "next");
    EXPECT_EQ(QFileInfo(path).size(), lineSize("next"));
    EXPECT_EQ(QFileInfo(oldPath).size(), 1048577);
}

TEST_F(DaemonLogRotation, replacesTheOldGeneration)
{
    writeFile(oldPath, QByteArray(3000000, 'o'));
    growWithTheHundredthMessageTo(1048577);
    EXPECT_EQ(QFileInfo(oldPath).size(), 1048577);
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(DaemonLogRotation, looksAtTheSizeOnlyAtEachHundredthMessage)
{
    writeFile(path, QByteArray(2000000, 'x'));
    logLines(99, "x");
    EXPECT_FALSE(QFile::exists(oldPath));
    EXPECT_EQ(QFileInfo(path).size(), 2000000 + 99 * lineSize("x"));
    logLines(1, "x");
    EXPECT_TRUE(QFile::exists(oldPath));
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(DaemonLogRotation, countsMessagesOfEveryKindAndPath)
{
    writeFile(path, QByteArray(2000000, 'x'));
    setLogFilePath(folder.filePath("other.log"));
    logLines(98, "x");
    qWarning("of Qt");
    EXPECT_FALSE(QFile::exists(oldPath));
    setLogFilePath(path);
    logLines(1, "x");
    EXPECT_TRUE(QFile::exists(oldPath));
}

TEST_F(DaemonLogRotation, looksAgainAHundredMessagesLater)
{
    logLines(100, "x");
    ASSERT_FALSE(QFile::exists(oldPath));
    growWithTheHundredthMessageTo(1048577);
    EXPECT_TRUE(QFile::exists(oldPath));
}

TEST_F(DaemonLogRotation, keepsTheFileWhenTheOldGenerationCannotBeReplaced)
{
    ASSERT_TRUE(QDir().mkpath(oldPath + "/in the way"));
    growWithTheHundredthMessageTo(1048577);
    logLines(1, "next");
    EXPECT_EQ(QFileInfo(path).size(), 1048577 + lineSize("next"));
    EXPECT_TRUE(QFileInfo(oldPath).isDir());
}

TEST_F(DaemonLogRotation, harmsNothingWithoutAFile)
{
    setLogFilePath(folder.filePath("no such folder/ruvod.log"));
    logLines(100, "x");
    EXPECT_FALSE(QFile::exists(folder.filePath("no such folder/ruvod.log.old")));
}

} // namespace
} // namespace ruvo
