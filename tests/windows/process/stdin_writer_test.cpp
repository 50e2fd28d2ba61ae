#include "process/stdin_writer.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <QByteArrayList>
#include <QElapsedTimer>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace ruvo {
namespace {

constexpr qsizetype mebibyte = 1024 * 1024;
/// Below that a call has not waited in vain for the writer's thread.
constexpr qint64 atOnce = 1900; // ms

QString refused(qsizetype size)
{
    return "WARNING [ProcessManager] Standard input of PID 77 is not read, dropping bytes: " + QString::number(size);
}

/// Which writer the message handler of a test writes to, once.
StdinWriter *s_warned = nullptr;

/// A run whose child is the test: it reads what is written, or does not.
class StdinWriterTest : public ::testing::Test
{
protected:
    StdinWriterTest()
    {
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        EXPECT_TRUE(CreatePipe(&read, &write, nullptr, 0));
        input.reset(read);
        launch->stdinWrite.reset(write);
        launch->pid = 77;
        m_pipe = write;
    }

    QByteArrayList writes() const
    {
        const std::lock_guard lock(m_mutex);
        return m_writes;
    }
    bool waitForWrites(qsizetype count)
    {
        return test::waitUntil([&] { return writes().size() == count; });
    }
    /// Reads `size` bytes as a child would.
    QByteArray readInput(qsizetype size)
    {
        QByteArray bytes;
        while (bytes.size() < size) {
            char chunk[4096];
            DWORD read = 0;
            const auto wanted = static_cast<DWORD>(std::min<qsizetype>(size - bytes.size(), sizeof(chunk)));
            if (!ReadFile(input.get(), chunk, wanted, &read, nullptr))
                break;
            bytes.append(chunk, static_cast<qsizetype>(read));
        }
        return bytes;
    }
    /// Leaves the writer's thread blocked in a write.
    void block(StdinWriter &writer)
    {
        writer.write(QByteArray(mebibyte, 'x'));
        ASSERT_TRUE(waitForWrites(1));
    }

    LaunchContextPointer launch = std::make_shared<LaunchContext>();
    KernelHandle input;
    std::atomic<DWORD> writerThread = 0;
    std::atomic<int> finishedWrites = 0;
    test::LogCapture log;

private:
    BOOL write(HANDLE handle, LPCVOID bytes, DWORD size, LPDWORD written, LPOVERLAPPED overlapped)
    {
        if (handle != m_pipe)
            return m_redirection.real(handle, bytes, size, written, overlapped);
        writerThread = GetCurrentThreadId();
        {
            const std::lock_guard lock(m_mutex);
            m_writes.append(QByteArray(static_cast<const char *>(bytes), static_cast<qsizetype>(size)));
        }
        const BOOL done = m_redirection.real(handle, bytes, size, written, overlapped);
        ++finishedWrites;
        return done;
    }

    mutable std::mutex m_mutex;
    QByteArrayList m_writes;
    std::atomic<HANDLE> m_pipe = nullptr;
    const test::ImportRedirection<IMPORT(WriteFile)> m_redirection{
        [this](auto... arguments) { return write(arguments...); }};
};

TEST_F(StdinWriterTest, makesOneWriteOfEachRequestInOrderOnAThreadOfItsOwn)
{
    StdinWriter writer(launch);
    QByteArrayList requests;
    for (int i = 0; i < 200; ++i) {
        requests.append(QByteArray::number(i) + ' ');
        writer.write(requests.last());
    }
    EXPECT_EQ(readInput(requests.join().size()), requests.join());
    EXPECT_TRUE(waitForWrites(requests.size()));
    EXPECT_EQ(writes(), requests);
    EXPECT_NE(writerThread, GetCurrentThreadId());
}

// A child would read a write of nothing as the end of its input.
TEST_F(StdinWriterTest, makesNoWriteOfARequestWithoutBytes)
{
    StdinWriter writer(launch);
    writer.write("");
    writer.write(QByteArray());
    writer.write("a");
    EXPECT_EQ(readInput(1), "a");
    EXPECT_TRUE(test::waitUntil([&] { return finishedWrites == 1; }));
    EXPECT_EQ(writes(), QByteArrayList({"a"}));
}

TEST_F(StdinWriterTest, takesAMegabyteForAChildThatNeverReadsWithoutBlocking)
{
    StdinWriter writer(launch);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 256; ++i)
        writer.write(QByteArray(4096, 'x'));
    EXPECT_LT(timer.elapsed(), atOnce);
    EXPECT_LT(finishedWrites, 256) << "the pipe takes it all: nothing has been shown";
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(StdinWriterTest, dropsWhatWouldWaitBeyondSixteenMebibytes)
{
    StdinWriter writer(launch);
    // With what each takes besides, the sixteenth would be too much.
    for (int i = 0; i < 15; ++i)
        writer.write(QByteArray(mebibyte, static_cast<char>('a' + i)));
    EXPECT_EQ(log.lines(), QStringList());
    writer.write(QByteArray(mebibyte, 'x'));
    EXPECT_EQ(log.lines(), QStringList({refused(mebibyte)}));
    // Only that request is lost: there is room for a smaller one, and again for what comes later.
    writer.write("small");
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(readInput(mebibyte), QByteArray(mebibyte, static_cast<char>('a' + i))) << i;
    EXPECT_EQ(readInput(5), "small");
    writer.write("later");
    EXPECT_EQ(readInput(5), "later");
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(StdinWriterTest, countsWhatSmallRequestsTake)
{
    StdinWriter writer(launch);
    block(writer);
    constexpr int tooMany = 300000;
    for (int i = 0; i < tooMany; ++i)
        writer.write("x");
    EXPECT_EQ(log.lines(), QStringList({refused(1)}));
    // The memory that is counted is the memory that they have, not what they use of it.
    StdinWriter roomy(launch);
    QByteArray request("y");
    request.reserve(4096);
    for (int i = 0; i < 16 * mebibyte / 4096; ++i)
        roomy.write(request);
    EXPECT_EQ(log.lines(), QStringList({refused(1), refused(1)}));
}

TEST_F(StdinWriterTest, warnsOnceUntilThereIsRoom)
{
    StdinWriter writer(launch);
    for (int i = 0; i < 15; ++i)
        writer.write(QByteArray(mebibyte, 'x'));
    for (int i = 0; i < 50; ++i) {
        writer.write(QByteArray(mebibyte, 'y'));
        writer.write("small"); // for which there is room
    }
    EXPECT_EQ(log.lines(), QStringList({refused(mebibyte)}));
    const QByteArray taken = readInput(15 * mebibyte + 50 * 5);
    EXPECT_FALSE(taken.contains('y'));
    writer.write("room");
    EXPECT_EQ(readInput(4), "room");
    writer.write(QByteArray(StdinWriter::maxWaitingBytes, 'z'));
    EXPECT_EQ(log.lines(), QStringList({refused(mebibyte), refused(StdinWriter::maxWaitingBytes)}));
}

// A log that takes long would hold up the writer's thread, and one that comes back would wait for itself.
TEST_F(StdinWriterTest, warnsWithoutItsLock)
{
    StdinWriter writer(launch);
    s_warned = &writer;
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {
            if (StdinWriter *warned = std::exchange(s_warned, nullptr))
                warned->write("from the warning");
        });
    writer.write(QByteArray(StdinWriter::maxWaitingBytes, 'x'));
    qInstallMessageHandler(previous);
    EXPECT_EQ(s_warned, nullptr);
    EXPECT_EQ(readInput(16), "from the warning");
}

TEST_F(StdinWriterTest, dropsASingleRequestBeyondTheLimitAndKeepsTheThreadUnstarted)
{
    StdinWriter writer(launch);
    writer.write(QByteArray(StdinWriter::maxWaitingBytes + 1, 'x'));
    EXPECT_EQ(log.lines(), QStringList({refused(16777217)}));
    writer.write("small");
    EXPECT_EQ(readInput(5), "small");
}

TEST_F(StdinWriterTest, endsAWriteThatBlocksWhenItIsStopped)
{
    StdinWriter writer(launch);
    block(writer);
    writer.write("never written");
    EXPECT_EQ(finishedWrites, 0);
    QElapsedTimer timer;
    timer.start();
    writer.stop();
    EXPECT_LT(timer.elapsed(), atOnce);
    EXPECT_EQ(finishedWrites, 1);
    EXPECT_EQ(writes().size(), 1);
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(StdinWriterTest, letsGoOfTheRunOnceItIsGone)
{
    {
        StdinWriter writer(launch);
        block(writer);
    }
    EXPECT_EQ(launch.use_count(), 1);
}

TEST_F(StdinWriterTest, writesNothingAfterItWasStopped)
{
    StdinWriter writer(launch);
    writer.write("a");
    ASSERT_TRUE(waitForWrites(1));
    writer.stop();
    writer.write("b");
    writer.stop();
    EXPECT_EQ(writes(), QByteArrayList({"a"}));
}

TEST_F(StdinWriterTest, hasNoThreadBeforeTheFirstRequest)
{
    const test::ImportRedirection<IMPORT(CreateThread)> createThread([](auto...) -> HANDLE {
        ADD_FAILURE() << "a thread is created";
        return nullptr;
    });
    StdinWriter writer(launch);
    writer.stop();
    writer.write("a");
}

TEST_F(StdinWriterTest, doesNotMindAChildThatIsGone)
{
    StdinWriter writer(launch);
    input.reset();
    writer.write("a");
    writer.write("b");
    EXPECT_TRUE(test::waitUntil([&] { return finishedWrites == 2; }));
    EXPECT_EQ(log.lines(), QStringList());
}

TEST_F(StdinWriterTest, triesAgainWithTheNextRequestToStartItsThread)
{
    StdinWriter writer(launch);
    {
        const test::ImportRedirection<IMPORT(CreateThread)> createThread([](auto...) -> HANDLE {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        });
        writer.write("first ");
    }
    EXPECT_EQ(log.lines(), QStringList({"WARNING [ProcessManager] Failed to create stdin thread: 8"}));
    EXPECT_EQ(launch.use_count(), 2); // nothing was left for the thread that is not there
    writer.write("second");
    EXPECT_EQ(readInput(12), "first second");
}

TEST_F(StdinWriterTest, leavesAThreadBehindThatCannotBeEndedAndItsHandleOpen)
{
    std::atomic<int> cancels = 0;
    const test::ImportRedirection<IMPORT(CancelSynchronousIo)> cancel([&](HANDLE) {
        ++cancels;
        return FALSE;
    });
    std::weak_ptr<LaunchContext> run = launch;
    StdinWriter writer(std::move(launch));
    block(writer);
    QElapsedTimer timer;
    timer.start();
    writer.stop();
    EXPECT_GE(timer.elapsed(), 2000);
    EXPECT_LT(timer.elapsed(), 2000 + atOnce);
    EXPECT_GE(cancels, 20);
    EXPECT_EQ(log.lines(), QStringList({"WARNING [ProcessManager] Standard input thread of PID 77 did not end, "
                                        "leaving it behind"}));

    // Its write still has a valid handle, and ends well once somebody reads.
    EXPECT_EQ(readInput(mebibyte).size(), mebibyte);
    EXPECT_TRUE(test::waitUntil([&] { return finishedWrites == 1; }));
    EXPECT_FALSE(run.expired());
}

} // namespace
} // namespace ruvo
