#include "daemon/log_output.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

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
    EXPECT_EQ(appendTextToFile(path, "one"), Appended::Yes);
    EXPECT_EQ(content(), "one");
    EXPECT_EQ(appendTextToFile(path, " two"), Appended::Yes);
    EXPECT_EQ(content(), "one two");
}

TEST_F(AppendTextToFile, writesTheSystemsLineEnds)
{
    EXPECT_EQ(appendTextToFile(path, "one\ntwo\n"), Appended::Yes);
#ifdef Q_OS_WIN
    EXPECT_EQ(content(), "one\r\ntwo\r\n");
#else
    EXPECT_EQ(content(), "one\ntwo\n");
#endif
}

TEST_F(AppendTextToFile, takesAPathWithEitherSeparator)
{
    EXPECT_EQ(appendTextToFile(QDir::fromNativeSeparators(path), "one"), Appended::Yes);
    EXPECT_EQ(appendTextToFile(QDir::toNativeSeparators(path), "two"), Appended::Yes);
    EXPECT_EQ(content(), "onetwo");
}

TEST_F(AppendTextToFile, appendsToAFileThatAnotherHasOpen)
{
    ASSERT_EQ(appendTextToFile(path, "one"), Appended::Yes);
    QFile reader(path);
    ASSERT_TRUE(reader.open(QFile::ReadOnly));
    EXPECT_EQ(appendTextToFile(path, "two"), Appended::Yes);
    EXPECT_EQ(reader.readAll(), "onetwo");
}

TEST_F(AppendTextToFile, leavesTheFileClosed)
{
    ASSERT_EQ(appendTextToFile(path, "one"), Appended::Yes);
    EXPECT_TRUE(QFile::rename(path, folder.filePath("moved")));
    EXPECT_TRUE(QFile::remove(folder.filePath("moved")));
}

TEST_F(AppendTextToFile, failsWhereNoFileCanBe)
{
    EXPECT_EQ(appendTextToFile(folder.path(), "at a folder"), Appended::No);
    EXPECT_EQ(appendTextToFile(folder.filePath("no such folder/x.log"), "x"), Appended::No);
    EXPECT_EQ(appendTextToFile(QString(), "x"), Appended::No);
}

TEST_F(AppendTextToFile, takesALongPath)
{
    QString deep = folder.path();
    while (deep.size() < 300)
        deep += "/a folder with a long name";
    ASSERT_TRUE(QDir().mkpath(deep));
    const QString file = deep + "/ü.log";
    EXPECT_EQ(appendTextToFile(file, "one"), Appended::Yes);
    EXPECT_EQ(appendTextToFile(deep + "/../" + QFileInfo(deep).fileName() + "/./ü.log", "two"), Appended::Yes);
    EXPECT_TRUE(renameFile(file, file + ".old"));
    EXPECT_FALSE(QFile::exists(file));
    EXPECT_EQ(QFileInfo(file + ".old").size(), 6);
    EXPECT_TRUE(removeFile(file + ".old"));
    EXPECT_FALSE(QFile::exists(file + ".old"));
}

#ifdef Q_OS_WIN
TEST_F(AppendTextToFile, refusesWhatIsNoDiskFile)
{
    EXPECT_EQ(appendTextToFile("NUL", "x"), Appended::NotAFile);
    EXPECT_EQ(appendTextToFile(folder.filePath("NUL"), "x"), Appended::NotAFile);
}
#else
TEST_F(AppendTextToFile, refusesWhatIsNoDiskFile)
{
    EXPECT_EQ(appendTextToFile("/dev/null", "x"), Appended::NotAFile);

    const QByteArray pipe = QFile::encodeName(folder.filePath("pipe"));
    ASSERT_EQ(mkfifo(pipe.constData(), 0600), 0);
    EXPECT_EQ(appendTextToFile(folder.filePath("pipe"), "x"), Appended::NotAFile) << "nobody reads it";
    const int reader = open(pipe.constData(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(appendTextToFile(folder.filePath("pipe"), "x"), Appended::NotAFile);
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, 1), 0) << "nothing was written";
    close(reader);
}
#endif

TEST(RemoveAndRenameFile, failWhereThereIsNone)
{
    const QTemporaryDir folder;
    EXPECT_FALSE(removeFile(folder.filePath("x")));
    EXPECT_FALSE(renameFile(folder.filePath("x"), folder.filePath("y")));
    EXPECT_FALSE(removeFile(folder.path())) << "a folder";
}

} // namespace
} // namespace ruvo
