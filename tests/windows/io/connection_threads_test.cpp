#include "io/connection_threads.h"

#include "support/log_capture.h"
#include "support/wait_until.h"
#include "windows/support/import_redirection.h"
#include "windows/support/own_resources.h"

#include <gtest/gtest.h>

#include <process.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

/// Keeps threads busy until it is opened.
class Gate
{
public:
    void open() { SetEvent(m_event.get()); }
    void wait() const { WaitForSingleObject(m_event.get(), 20000); }

private:
    const KernelHandle m_event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST(ConnectionThreads, doJobsInOrder)
{
    std::vector<int> done;
    std::atomic<int> count = 0;
    ConnectionThreads threads(1);
    for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(threads.post([&, i] {
            done.push_back(i);
            ++count;
        }));
    }
    ASSERT_TRUE(waitUntil([&] { return count == 200; }));
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(done[static_cast<std::size_t>(i)], i);
}

TEST(ConnectionThreads, blockAtTheSameTimeUpToTheirLimit)
{
    Gate gate;
    std::atomic<int> running = 0;
    std::atomic<int> done = 0;
    ConnectionThreads threads(5);
    for (int i = 0; i < 12; ++i) {
        threads.post([&] {
            ++running;
            gate.wait();
            --running;
            ++done;
        });
    }
    EXPECT_TRUE(waitUntil([&] { return running == 5; }));
    Sleep(100); // a sixth would come now
    EXPECT_EQ(running, 5);
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return done == 12; }));
}

TEST(ConnectionThreads, useAThreadAgain)
{
    std::atomic<DWORD> last = 0;
    std::mutex mutex;
    std::vector<DWORD> ids;
    ConnectionThreads threads(256);
    for (int i = 0; i < 50; ++i) {
        last = 0;
        threads.post([&] {
            const std::lock_guard lock(mutex);
            ids.push_back(GetCurrentThreadId());
            last = GetCurrentThreadId();
        });
        ASSERT_TRUE(waitUntil([&] { return last != 0; }));
    }
    std::ranges::sort(ids);
    ids.erase(std::ranges::unique(ids).begin(), ids.end());
    EXPECT_LE(ids.size(), 5u) << "one is idle by the time of the next job, nearly always";
}

TEST(ConnectionThreads, dropWhatWaitsWhenTheyStopAndWaitForWhatRuns)
{
    Gate gate;
    std::atomic<int> done = 0;
    std::atomic<bool> isRunning = false;
    const auto owned = std::make_shared<int>(1);
    ConnectionThreads threads(1);
    threads.post([&] {
        isRunning = true;
        gate.wait();
        ++done;
    });
    for (int i = 0; i < 10; ++i)
        threads.post([&done, owned] { done += 100; });
    ASSERT_TRUE(waitUntil([&] { return isRunning.load(); }));
    EXPECT_EQ(owned.use_count(), 11);
    std::thread opener([&] {
        Sleep(100);
        gate.open();
    });
    threads.stop();
    EXPECT_EQ(done, 1) << "it was waited for, and nothing followed";
    EXPECT_EQ(owned.use_count(), 1) << "with what they own";
    opener.join();
    EXPECT_FALSE(threads.post([owned] {}));
    EXPECT_EQ(owned.use_count(), 1);
    threads.stop();
}

TEST(ConnectionThreads, goOnWhenAThreadCannotBeStarted)
{
    const LogCapture log;
    ConnectionThreads threads(4);
    std::atomic<int> done = 0;
    {
        const ImportRedirection<IMPORT(_beginthreadex)> none(
            [](void *, unsigned, unsigned(__stdcall *)(void *), void *, unsigned, unsigned *) -> uintptr_t {
                errno = EAGAIN;
                return 0;
            });
        EXPECT_FALSE(threads.post([&] { ++done; })) << "nobody is there to do it";
        EXPECT_EQ(log.lines(), QStringList{"WARNING Failed to start a connection thread: 11"});
        for (int number = 2; number <= 210; ++number)
            EXPECT_FALSE(threads.post([&] { ++done; }));
        EXPECT_EQ(log.lines().size(), 12) << "the first ten and every hundredth";
    }
    Gate gate;
    EXPECT_TRUE(threads.post([&] {
        gate.wait();
        ++done;
    }));
    {
        const ImportRedirection<IMPORT(_beginthreadex)> none(
            [](void *, unsigned, unsigned(__stdcall *)(void *), void *, unsigned, unsigned *) -> uintptr_t {
                errno = EAGAIN;
                return 0;
            });
        EXPECT_TRUE(threads.post([&] { ++done; })) << "the one that there is does it later";
    }
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return done == 2; }));
}

// Takes the ten seconds after which an idle thread goes.
TEST(ConnectionThreads, endAfterAWhileWithoutWork)
{
    const std::size_t before = OwnResources::now().threads;
    Gate gate;
    std::atomic<int> running = 0;
    ConnectionThreads threads(20);
    for (int i = 0; i < 20; ++i) {
        threads.post([&] {
            ++running;
            gate.wait();
        });
    }
    ASSERT_TRUE(waitUntil([&] { return running == 20; }));
    EXPECT_GE(OwnResources::now().threads, before + 20);
    gate.open();
    EXPECT_TRUE(waitUntil([&] { return OwnResources::now().threads <= before; }, 40s));
    std::atomic<bool> isDone = false;
    EXPECT_TRUE(threads.post([&] { isDone = true; }));
    EXPECT_TRUE(waitUntil([&] { return isDone.load(); })) << "a new one is started when it is needed";
}

} // namespace
} // namespace ruvo::test
