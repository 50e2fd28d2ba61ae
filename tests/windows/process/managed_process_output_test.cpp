// Which output of a child that has ended is told: what had been read by then, and nothing else.

#include "windows/process/managed_process_fixture.h"

#include "windows/support/import_redirection.h"

#include <QElapsedTimer>

#include <atomic>
#include <functional>

namespace ruvo {
namespace {

constexpr DWORD cycle = 50;     // ms, the reader's pause between two looks
constexpr DWORD atMost = 15000; // ms
const QString lateOutput = "stdout {\"fact\":\"line\",\"text\":\"go\"}\nlate";
const QStringList lateScript = {"--read-line", "--print", "late", "--exit", "5"};

class ManagedProcessOutput : public ManagedProcessTest
{
protected:
    /// Starts a child and leaves the reader in the pause between two looks; then the child writes and ends, and its
    /// exit waits for the service thread.
    void endWhileTheReaderPauses()
    {
        ASSERT_TRUE(start(lateScript));
        ASSERT_TRUE(poll([this] { return held.load(); }));
        process->writeToStdin("go\n");
        ASSERT_TRUE(poll([this] { return log.contains("Queued handleProcessExit"); }));
        EXPECT_EQ(heard, QStringList({"started"}));
        DWORD available = 0;
        EXPECT_TRUE(PeekNamedPipe(process->info().stdoutRead, nullptr, 0, nullptr, &available, nullptr));
        EXPECT_GT(available, 0u) << "the child has written nothing, or the reader has read it: nothing can be shown";
    }
    /// Waits without the event loop.
    static bool poll(const std::function<bool()> &condition)
    {
        QElapsedTimer timer;
        timer.start();
        while (!condition()) {
            if (timer.elapsed() > atMost)
                return false;
            Sleep(1);
        }
        return true;
    }

    const DWORD serviceThread = GetCurrentThreadId();
    std::atomic<bool> held = false;
    std::atomic<bool> release = false;
    std::atomic<int> looksAfterwards = 0;
    const test::ImportRedirection<IMPORT(Sleep)> sleep{[this](DWORD milliseconds) {
        if (GetCurrentThreadId() == serviceThread || milliseconds != cycle)
            return sleep.real(milliseconds);
        if (release) // the pause after a look
            ++looksAfterwards;
        held = true;
        poll([this] { return release.load(); });
    }};
};

TEST_F(ManagedProcessOutput, isToldBeforeTheEndThoughItWasReadAfterTheExit)
{
    endWhileTheReaderPauses();
    release = true;
    ASSERT_TRUE(poll([this] { return looksAfterwards > 0; }));
    EXPECT_EQ(heard, QStringList({"started"}));
    // Now the exit waits for the service thread, and the output behind it.
    ASSERT_TRUE(waitFor("finished 5"));
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started", lateOutput, "finished 5"}));
}

TEST_F(ManagedProcessOutput, isLeftInThePipeAtTheExit)
{
    endWhileTheReaderPauses();
    std::atomic<int> reads = 0;
    const test::ImportRedirection<IMPORT(ReadFile)> readFile([&](auto... arguments) {
        ++reads;
        return readFile.real(arguments...);
    });
    // The reader goes on when the exit is handled and the service thread waits for it.
    const test::ImportRedirection<IMPORT(WaitForSingleObject)> wait([&](HANDLE handle, DWORD milliseconds) {
        if (GetCurrentThreadId() == serviceThread && log.contains("handleProcessExit] Processing"))
            release = true;
        return wait.real(handle, milliseconds);
    });
    ASSERT_TRUE(waitFor("finished 5"));
    test::processPending();
    EXPECT_EQ(heard, QStringList({"started", "finished 5"}));
    EXPECT_EQ(reads, 0);
    EXPECT_FALSE(log.contains("leaving it behind"));
}

} // namespace
} // namespace ruvo
