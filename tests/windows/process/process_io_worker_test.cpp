#include "process/process_io_worker.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QStringList>
#include <QThread>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace ruvo {
namespace {

/// A pipe whose writing end is the child's.
struct Pipe
{
    KernelHandle read;
    KernelHandle write;

    Pipe()
    {
        constexpr DWORD room = 256 * 1024;
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        EXPECT_TRUE(CreatePipe(&readEnd, &writeEnd, nullptr, room));
        read.reset(readEnd);
        write.reset(writeEnd);
    }
    void fill(const QByteArray &bytes) const
    {
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(write.get(), bytes.constData(), static_cast<DWORD>(bytes.size()), &written, nullptr));
        EXPECT_EQ(written, bytes.size());
    }
};

/// A reader in the test's own thread: between two cycles, where it sleeps, the test has the word.
class ProcessIOWorkerTest : public ::testing::Test
{
protected:
    ProcessIOWorkerTest()
    {
        launch->stdoutRead = std::move(output.read);
        launch->stderrRead = std::move(error.read);
        QObject::connect(&worker, &ProcessIOWorker::stdoutReady,
                         [this](const QString &id, const QByteArray &data) { record(id, "stdout", data); });
        QObject::connect(&worker, &ProcessIOWorker::stderrReady,
                         [this](const QString &id, const QByteArray &data) { record(id, "stderr", data); });
    }

    /// Lets the reader run for so many cycles, then stops it.
    void read(int count)
    {
        m_cyclesLeft = count;
        worker.startReading();
    }
    QStringList takeSignals() { return std::exchange(m_signals, {}); }

    Pipe output;
    Pipe error;
    const LaunchContextPointer launch = std::make_shared<LaunchContext>();
    ProcessIOWorker worker{"core", launch};
    int cycles = 0;
    std::function<void()> betweenCycles;
    std::vector<DWORD> reads;

private:
    void record(const QString &id, const char *stream, const QByteArray &data)
    {
        EXPECT_EQ(id, "core");
        const QString text = data.size() > 20 ? QString::number(data.size()) : QString::fromUtf8(data);
        m_signals.append(QString("%1 %2: %3").arg(cycles).arg(stream, text));
    }
    void sleep(DWORD milliseconds)
    {
        EXPECT_EQ(milliseconds, 50u);
        ++cycles;
        if (betweenCycles)
            betweenCycles();
        if (--m_cyclesLeft <= 0)
            worker.stopReading();
    }

    int m_cyclesLeft = 0;
    QStringList m_signals;
    const test::ImportRedirection<IMPORT(Sleep)> m_sleep{[this](DWORD milliseconds) { sleep(milliseconds); }};
    const test::ImportRedirection<IMPORT(ReadFile)> m_readFile{
        [this](HANDLE handle, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
            reads.push_back(size);
            return m_readFile.real(handle, buffer, size, read, overlapped);
        }};
};

TEST_F(ProcessIOWorkerTest, readsStandardOutputThenStandardErrorInEachCycle)
{
    error.fill("e0");
    output.fill("o0");
    betweenCycles = [this] {
        error.fill("e" + QByteArray::number(cycles));
        output.fill("o" + QByteArray::number(cycles));
    };
    read(2);
    EXPECT_EQ(takeSignals(), QStringList({"0 stdout: o0", "0 stderr: e0", "1 stdout: o1", "1 stderr: e1"}));
}

TEST_F(ProcessIOWorkerTest, readsAtMost4096BytesOfEachStreamInACycle)
{
    output.fill(QByteArray(10000, 'o'));
    error.fill(QByteArray(4097, 'e'));
    read(4);
    EXPECT_EQ(takeSignals(),
              QStringList({"0 stdout: 4096", "0 stderr: 4096", "1 stdout: 4096", "1 stderr: e", "2 stdout: 1808"}));
}

TEST_F(ProcessIOWorkerTest, asksForNoMoreThanIsThere)
{
    read(3);
    EXPECT_EQ(reads, std::vector<DWORD>());
    EXPECT_EQ(takeSignals(), QStringList());
}

TEST_F(ProcessIOWorkerTest, asksForWhatIsThereWhereThatIsLittle)
{
    output.fill("12345");
    betweenCycles = [this] { error.fill("6"); };
    read(2);
    EXPECT_EQ(reads, std::vector<DWORD>({5, 1}));
}

TEST_F(ProcessIOWorkerTest, goesOnAfterAStreamHasEnded)
{
    output.write.reset();
    betweenCycles = [this] { error.fill("still there"); };
    read(2);
    EXPECT_EQ(cycles, 2);
    EXPECT_EQ(takeSignals(), QStringList({"1 stderr: still there"}));
}

TEST_F(ProcessIOWorkerTest, ignoresAReadThatFails)
{
    output.fill("kept in the pipe");
    int failures = 0;
    {
        const test::ImportRedirection<IMPORT(ReadFile)> readFile([&](auto...) {
            ++failures;
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return FALSE;
        });
        read(3);
    }
    EXPECT_EQ(failures, 3);
    EXPECT_EQ(takeSignals(), QStringList());
}

TEST_F(ProcessIOWorkerTest, makesNoSignalOfAReadOfNothing)
{
    output.fill("x");
    const test::ImportRedirection<IMPORT(ReadFile)> readFile([&](HANDLE, LPVOID, DWORD, LPDWORD read, LPOVERLAPPED) {
        *read = 0;
        return TRUE;
    });
    read(1);
    EXPECT_EQ(takeSignals(), QStringList());
}

TEST_F(ProcessIOWorkerTest, readsNothingOfStreamsThatAreNotThere)
{
    launch->stdoutRead.reset();
    error.fill("e");
    read(1);
    EXPECT_EQ(takeSignals(), QStringList({"0 stderr: e"}));
}

TEST_F(ProcessIOWorkerTest, endsOnceTheRunCountsAsEnded)
{
    output.fill("first");
    betweenCycles = [this] {
        output.fill("too late");
        launch->state = QProcess::NotRunning;
    };
    read(100);
    EXPECT_EQ(cycles, 1);
    EXPECT_EQ(takeSignals(), QStringList({"0 stdout: first"}));
}

TEST_F(ProcessIOWorkerTest, readsNothingWhenItWasStoppedBeforeItsStart)
{
    output.fill("x");
    worker.stopReading();
    read(1);
    EXPECT_EQ(cycles, 0);
    EXPECT_EQ(takeSignals(), QStringList());
}

TEST(ProcessIOWorker, endsSoonAfterAStopWhileNothingComes)
{
    Pipe output;
    Pipe error;
    const auto launch = std::make_shared<LaunchContext>();
    launch->stdoutRead = std::move(output.read);
    launch->stderrRead = std::move(error.read);
    ProcessIOWorker worker("core", launch);
    int chunks = 0;
    QObject::connect(
        &worker, &ProcessIOWorker::stdoutReady, &worker, [&] { ++chunks; }, Qt::DirectConnection);
    const std::unique_ptr<QThread> thread(QThread::create([&] { worker.startReading(); }));
    thread->start();
    output.fill("it reads");
    ASSERT_TRUE(test::waitUntil([&] {
        DWORD available = 0;
        return PeekNamedPipe(launch->stdoutRead.get(), nullptr, 0, nullptr, &available, nullptr) && available == 0;
    }));

    QElapsedTimer timer;
    timer.start();
    worker.stopReading();
    EXPECT_TRUE(thread->wait(10000));
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_EQ(chunks, 1);
}

} // namespace
} // namespace ruvo
