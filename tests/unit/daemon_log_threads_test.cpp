#include "daemon_log_fixture.h"

#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

constexpr int threadCount = 8;

/// Lines of many lengths: where one were written into another, both would no longer match.
QByteArray padding(int thread, int line)
{
    return QByteArray(1 + (thread * 37 + line * 11) % 200, static_cast<char>('a' + (thread + line) % 26));
}

class DaemonLogThreads : public DaemonLogTest
{
protected:
    /// Eight threads that log, and what the test does meanwhile.
    static void logFromThreads(int linesPerThread, const std::function<void()> &meanwhile)
    {
        std::atomic<int> running = threadCount;
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < threadCount; ++thread) {
            threads.emplace_back([thread, linesPerThread, &running] {
                for (int line = 0; line < linesPerThread; ++line)
                    qCInfo(lcRuvod) << "thread" << thread << "line" << line << padding(thread, line).constData();
                --running;
            });
        }
        while (running > 0)
            meanwhile();
    }

    /// How often each whole line of a thread stands in the files. Every other line is a failure.
    static QHash<std::pair<int, int>, int> wholeLines(const QStringList &paths)
    {
        static const QRegularExpression format(
            R"(\A\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] INFO: thread (\d) line (\d+) ([a-z]+)\z)");
        QHash<std::pair<int, int>, int> lines;
        for (const QString &file : paths) {
            QByteArrayList content = contentOf(file).replace("\r\n", "\n").split('\n');
            EXPECT_EQ(content.takeLast(), "") << "the last line of " << file.toStdString() << " is cut off";
            for (const QByteArray &line : content) {
                const auto match = format.match(QString::fromLatin1(line));
                const int thread = match.captured(1).toInt();
                const int number = match.captured(2).toInt();
                if (match.hasMatch() && match.captured(3).toLatin1() == padding(thread, number))
                    ++lines[{thread, number}];
                else
                    ADD_FAILURE() << "torn line in " << file.toStdString() << ": " << line.toStdString();
            }
        }
        return lines;
    }

    static void expectEachOnce(const QHash<std::pair<int, int>, int> &lines, int linesPerThread)
    {
        EXPECT_EQ(lines.size(), threadCount * linesPerThread);
        EXPECT_TRUE(std::ranges::all_of(lines, [](int count) { return count == 1; }));
    }
};

TEST_F(DaemonLogThreads, loseAndTearNoLineWhileTheLogMovesAbout)
{
    constexpr int linesPerThread = 500;
    QStringList paths;
    for (int i = 0; i < 3; ++i)
        paths.append(folder.filePath(QString("%1.log").arg(i)));
    useLogFile(paths[0]);
    int moves = 0;
    logFromThreads(linesPerThread, [&] { useLogFile(paths[++moves % paths.size()]); });
    for (const QString &file : std::as_const(paths))
        EXPECT_TRUE(QFile::exists(file)) << "after " << moves << " moves";
    expectEachOnce(wholeLines(paths), linesPerThread);
}

TEST_F(DaemonLogThreads, loseAndTearNoLineWhileTheLogIsRotated)
{
    constexpr int linesPerThread = 600;
    // Just below the limit, so that the file is rotated once on the way: a second time, the first old generation
    // would rightly be gone.
    const qint64 filler = logRotationThreshold - 20000;
    writeFile(path, QByteArray(filler - 2, '-') + lineEnd);
    const qint64 fillerSize = QFileInfo(path).size();
    logFromThreads(linesPerThread, [] { std::this_thread::yield(); });

    ASSERT_TRUE(QFile::exists(oldPath));
    QByteArray old = contentOf(oldPath);
    EXPECT_GT(old.size(), logRotationThreshold);
    ASSERT_TRUE(old.startsWith(QByteArray(filler - 2, '-') + lineEnd));
    writeFile(oldPath, old.mid(fillerSize));
    expectEachOnce(wholeLines({oldPath, path}), linesPerThread);
}

TEST_F(DaemonLogThreads, mayLogWhileTheLogIsCleared)
{
    logFromThreads(200, [] { clearLogs(); });
    // What is left of it is whole.
    wholeLines({path});
    qCInfo(lcRuvod) << "still alive";
    EXPECT_TRUE(contentOf(path).endsWith(QByteArray("INFO: still alive") + lineEnd));
}

} // namespace
} // namespace ruvo
