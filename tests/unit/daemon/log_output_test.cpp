#include "daemon/log_output.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace ruvo {
namespace {

class AppendTextToFile : public ::testing::Test
{
protected:
    QByteArray content() const
    {
        QFile file(path);
        return file.open(QFile::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir folder;
    const QString path = folder.filePath("ü.log");
};

TEST_F(AppendTextToFile, makesTheFileAndAppendsToIt)
{
    EXPECT_TRUE(appendTextToFile(path, "one"));
    EXPECT_EQ(content(), "one");
    EXPECT_TRUE(appendTextToFile(path, " two"));
    EXPECT_EQ(content(), "one two");
}

TEST_F(AppendTextToFile, writesTheSystemsLineEnds)
{
    EXPECT_TRUE(appendTextToFile(path, "one\ntwo\n"));
#ifdef Q_OS_WIN
    EXPECT_EQ(content(), "one\r\ntwo\r\n");
#else
    EXPECT_EQ(content(), "one\ntwo\n");
#endif
}

TEST_F(AppendTextToFile, takesAPathWithEitherSeparator)
{
    EXPECT_TRUE(appendTextToFile(QDir::fromNativeSeparators(path), "one"));
    EXPECT_TRUE(appendTextToFile(QDir::toNativeSeparators(path), "two"));
    EXPECT_EQ(content(), "onetwo");
}

TEST_F(AppendTextToFile, appendsToAFileThatAnotherHasOpen)
{
    ASSERT_TRUE(appendTextToFile(path, "one"));
    QFile reader(path);
    ASSERT_TRUE(reader.open(QFile::ReadOnly));
    EXPECT_TRUE(appendTextToFile(path, "two"));
    EXPECT_EQ(reader.readAll(), "onetwo");
}

TEST_F(AppendTextToFile, leavesTheFileClosed)
{
    ASSERT_TRUE(appendTextToFile(path, "one"));
    EXPECT_TRUE(QFile::rename(path, folder.filePath("moved")));
    EXPECT_TRUE(QFile::remove(folder.filePath("moved")));
}

TEST_F(AppendTextToFile, failsWhereNoFileCanBe)
{
    EXPECT_FALSE(appendTextToFile(folder.path(), "at a folder"));
    EXPECT_FALSE(appendTextToFile(folder.filePath("no such folder/x.log"), "x"));
    EXPECT_FALSE(appendTextToFile(QString(), "x"));
}

} // namespace
} // namespace ruvo
