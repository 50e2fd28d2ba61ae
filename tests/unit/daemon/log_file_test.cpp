#include "daemon/log_file.h"

#include "daemon_log_fixture.h"
#include "support/log_capture.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <semaphore>
#include <thread>

#ifndef Q_OS_WIN
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace ruvo {
namespace {

using namespace std::chrono_literals;

class LogFileTest : public ::testing::Test
{
protected:
    SteadyTime now()
    {
        // Asked when a line goes in, and when it has come out.
        m_now = m_now.load() + m_appendTakes.load();
        return m_now;
    }
    void wait(LogGate::Duration time) { m_now = m_now.load() + time; }
    void takeSlowly(const QByteArray &line)
    {
        m_appendTakes = LogGate::patience;
        m_file.take(line, false);
        m_appendTakes = 0s;
    }

    /// What the file holds, without the times.
    QByteArrayList lines() const
    {
        QByteArrayList lines = contentOf(m_path).replace("\r\n", "\n").split('\n');
        lines.removeLast();
        for (QByteArray &line : lines)
            line = QString::fromUtf8(line).remove(QRegularExpression(R"(^\[[-0-9]{10} [:.0-9]{12}\] )")).toUtf8();
        return lines;
    }

    const QTemporaryDir m_folder;
    const QString m_path = m_folder.filePath("ruvod.log");
    std::atomic<SteadyTime> m_now = SteadyTime(100s);
    std::atomic<LogGate::Duration> m_appendTakes = LogGate::Duration(0);
    LogFile m_file{m_path, [this] { return now(); }};
};

TEST_F(LogFileTest, leavesLinesOutForFiveSecondsAfterASlowOneAndSaysHowMany)
{
    takeSlowly("slow\n");
    m_file.take("lost\n", false);
    wait(4999ms);
    m_file.take("lost too\n", true);
    EXPECT_EQ(lines(), QByteArrayList{"slow"});
    wait(1ms);
    m_file.take("again\n", false);
    m_file.take("and again\n", false);
    EXPECT_EQ(lines(),
              (QByteArrayList{"slow", "WARNING: Lines left out of the log file while it could not be written: 2",
                              "again", "and again"}));
}

TEST_F(LogFileTest, countsAnewAfterItHasSaidHowMany)
{
    takeSlowly("slow\n");
    m_file.take("lost\n", false);
    wait(5s);
    takeSlowly("slow again\n");
    m_file.take("lost\n", false);
    wait(5s);
    m_file.take("last\n", false);
    EXPECT_EQ(lines(),
              (QByteArrayList{"slow", "WARNING: Lines left out of the log file while it could not be written: 1",
                              "slow again",
                              "WARNING: Lines left out of the log file while it could not be written: 1", "last"}));
}

TEST_F(LogFileTest, saysHowManyAnotherFileHasLostBeforeIt)
{
    takeSlowly("slow\n");
    m_file.take("lost\n", false);
    LogFile next(m_path, [this] { return now(); });
    next.takeOverLeftOut(m_file);
    next.take("first\n", false);
    wait(5s);
    m_file.take("again\n", false);
    EXPECT_EQ(lines(),
              (QByteArrayList{"slow", "WARNING: Lines left out of the log file while it could not be written: 1",
                              "first", "again"}));
}

TEST_F(LogFileTest, saysHowManyOnceItCanBeWrittenAgain)
{
    takeSlowly("slow\n");
    m_file.take("lost\n", false);
    wait(5s);
    ASSERT_TRUE(QFile::remove(m_path));
    ASSERT_TRUE(QDir().mkpath(m_path)); // in the way
    m_file.take("not written\n", false);
    ASSERT_TRUE(QDir().rmdir(m_path));
    m_file.take("again\n", false);
    EXPECT_EQ(lines(),
              (QByteArrayList{"WARNING: Lines left out of the log file while it could not be written: 1", "again"}));
}

TEST_F(LogFileTest, leavesLinesOfOtherThreadsOutWhileOneIsHeldUp)
{
    std::binary_semaphore inside{0};
    std::binary_semaphore release{0};
    std::atomic<int> asked = 0;
    std::atomic<SteadyTime> time = SteadyTime(100s);
    LogFile file(m_path, [&] {
        if (++asked == 2) { // the line is written, but its thread has not come out yet
            inside.release();
            release.acquire();
        }
        return time.load();
    });
    std::jthread held([&] { file.take("held up\n", false); });
    inside.acquire();
    time = time.load() + 999ms;
    file.take("soon enough\n", false);
    time = time.load() + 1ms;
    for (int i = 0; i < 100; ++i)
        file.take("lost\n", false);
    EXPECT_EQ(lines(), (QByteArrayList{"held up", "soon enough"}));
    release.release();
    held.join();
    time = time.load() + 5s;
    file.take("again\n", false);
    EXPECT_EQ(
        lines().sliced(2),
        (QByteArrayList{"WARNING: Lines left out of the log file while it could not be written: 100", "again"}));
}

TEST_F(LogFileTest, looksAtItsSizeWithNoneThatIsLeftOut)
{
    takeSlowly("slow\n");
    writeFile(m_path, QByteArray(logRotationThreshold + 1, 'x'));
    m_file.take("lost\n", true);
    EXPECT_FALSE(QFile::exists(m_path + ".old"));
    wait(5s);
    m_file.take("again\n", true);
    EXPECT_TRUE(QFile::exists(m_path + ".old"));
}

TEST_F(LogFileTest, isNeitherClearedNorGivenFoldersWhileItBlocks)
{
    takeSlowly("slow\n");
    {
        test::LogCapture log;
        EXPECT_FALSE(m_file.clear());
        EXPECT_EQ(log.lines(), QStringList{"WARNING Failed to clear some daemon log files"});
    }
    EXPECT_EQ(lines(), QByteArrayList{"slow"});
    LogFile nested(m_folder.filePath("deep/ruvod.log"), [this] { return now(); });
    m_appendTakes = LogGate::patience;
    nested.makeFolders();
    m_appendTakes = 0s;
    ASSERT_TRUE(QDir().rmdir(m_folder.filePath("deep")));
    nested.makeFolders();
    EXPECT_FALSE(QFileInfo::exists(m_folder.filePath("deep")));
    wait(5s);
    nested.makeFolders();
    EXPECT_TRUE(QFileInfo::exists(m_folder.filePath("deep")));
    EXPECT_TRUE(m_file.clear());
    EXPECT_FALSE(QFile::exists(m_path));
}

TEST_F(LogFileTest, isTheOneForItsPathUnlessItIsRefused)
{
    EXPECT_TRUE(m_file.isFor(m_path));
    EXPECT_FALSE(m_file.isFor(m_path + 'x'));
    EXPECT_FALSE(LogFile(R"(\\.\pipe\ruvod-1)").isFor(R"(\\.\pipe\ruvod-1)"));
}

TEST(RefusedLogFile, isADevicesNameHoweverItIsWritten)
{
    // Where these are ordinary names, files of such names would come.
    const QTemporaryDir folder;
    ASSERT_TRUE(QDir::setCurrent(folder.path()));
    for (const char *path : {R"(\\.\log)", R"(\\?\log)", R"(\??\log)"}) {
        LogFile file(path);
        file.makeFolders();
        file.take("line\n", true);
        EXPECT_TRUE(file.clear()) << "there is nothing to remove";
        EXPECT_EQ(file.path(), path);
    }
    EXPECT_TRUE(QDir(folder.path()).isEmpty());
    QDir::setCurrent(QDir::rootPath());
}

#ifndef Q_OS_WIN
TEST(RefusedLogFile, isAPipeOnceItWasOpened)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("pipe");
    ASSERT_EQ(mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    LogFile file(path);
    file.take("nobody reads\n", true);
    EXPECT_FALSE(file.isFor(path));
    EXPECT_TRUE(file.clear());
    EXPECT_TRUE(QFileInfo::exists(path)) << "what is no file is not removed";

    // From here on it could be written.
    ASSERT_TRUE(QFile::remove(path));
    file.take("not opened again\n", false);
    EXPECT_FALSE(QFileInfo::exists(path));
}
#endif

} // namespace
} // namespace ruvo
