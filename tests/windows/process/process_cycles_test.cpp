// Many children, one after the other and at once: what this process holds must be the same before and after.
// A tenth of the cycles; all of them with RUVOD_WHOLE=1 in the environment.

#include "windows/process/process_manager_fixture.h"

#include "windows/process/volume.h"
#include "windows/support/own_resources.h"

#include <QElapsedTimer>

#include <cstdio>

namespace ruvo {
namespace {

/// Blocks that a heap keeps for later.
constexpr std::size_t heapNoise = 64 * 1024;
constexpr std::size_t handleNoise = 2;
constexpr std::size_t workingSetNoise = 4 * 1024 * 1024;

class ProcessCycles : public ProcessManagerTest
{
protected:
    static int cycles() { return test::volume(1000, 100); }

    /// Forgets what the test itself has collected.
    void forget()
    {
        events.clear();
        log.clear();
    }
    void startAndWaitForTheEnd(const QJsonObject &more = {}, const QStringList &script = {"--exit", "0"})
    {
        ASSERT_EQ(start("child", script, more)["status"], "started");
        const auto isOver = [this] { return !events.isEmpty() && events.last()["event"] == "finished"; };
        ASSERT_TRUE(test::waitUntil(isOver, std::chrono::minutes(10)));
    }
    void expectTheSame(const char *what, int count, const test::OwnResources &before, qint64 milliseconds)
    {
        forget();
        const auto isBack = [&](std::size_t noise) {
            const test::OwnResources now = test::OwnResources::now();
            return now.handles <= before.handles + noise && now.threads <= before.threads;
        };
        // What has ended closes its own a little late.
        if (!test::waitUntil([&] { return isBack(0); }, std::chrono::seconds(2)))
            test::waitUntil([&] { return isBack(handleNoise); });
        const test::OwnResources after = test::OwnResources::now();
        std::printf("%d %s in %.1f s\n  before: %s\n  after:  %s\n", count, what,
                    static_cast<double>(milliseconds) / 1000, before.text().c_str(), after.text().c_str());
        EXPECT_LE(after.handles, before.handles + handleNoise);
        EXPECT_EQ(after.threads, before.threads);
        EXPECT_LE(after.heapBytes, before.heapBytes + heapNoise);
        EXPECT_LE(after.workingSet, before.workingSet + workingSetNoise);
    }
};

TEST_F(ProcessCycles, ofStartAndExitLeaveNothingBehind)
{
    for (int i = 0; i < 10; ++i)
        startAndWaitForTheEnd();
    forget();
    const test::OwnResources before = test::OwnResources::now();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < cycles(); ++i) {
        startAndWaitForTheEnd({}, {"--print", "hello", "--exit", "0"});
        forget();
    }
    expectTheSame("cycles of start and exit", cycles(), before, timer.elapsed());
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessCycles, ofRestartsOfOneEntryLeaveNothingBehind)
{
    startAndWaitForTheEnd({{"auto-restart", true}, {"max-restart-attempts", 10}, {"restart-delay-ms", 0}},
                          {"--exit", "3"});
    forget();
    const test::OwnResources before = test::OwnResources::now();
    QElapsedTimer timer;
    timer.start();
    startAndWaitForTheEnd({{"auto-restart", true}, {"max-restart-attempts", cycles()}, {"restart-delay-ms", 0}},
                          {"--exit", "3"});
    EXPECT_EQ(eventsOf("child").count("started"), cycles() + 1);
    EXPECT_EQ(eventsOf("child").last(), "finished: 3");
    expectTheSame("restarts of one entry", cycles(), before, timer.elapsed());
}

TEST_F(ProcessCycles, ofStartAndKillLeaveNothingBehind)
{
    const auto startAndKill = [this] {
        ASSERT_EQ(start("child", {"--wait"})["status"], "started");
        manager->writeToProcess("child", QByteArray(256 * 1024, 'x'));
        manager->killProcess("child");
        test::processPending();
    };
    for (int i = 0; i < 10; ++i)
        startAndKill();
    forget();
    const test::OwnResources before = test::OwnResources::now();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < cycles(); ++i) {
        startAndKill();
        forget();
    }
    expectTheSame("cycles of start, blocked input and kill", cycles(), before, timer.elapsed());
}

TEST_F(ProcessCycles, ofFiftyChildrenAtOnceLeaveNothingBehind)
{
    constexpr int children = 50;
    const QStringList script = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};
    const auto run = [&](int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(start(QString::number(i), script)["status"], "started");
        for (int i = 0; i < count; ++i)
            ASSERT_TRUE(waitFor(QString::number(i), "stdout: ready\n")) << i;
        EXPECT_EQ(registered(), count);
        manager->stopAll(10000);
        EXPECT_TRUE(test::waitUntil([this] { return registered() == 0; }));
    };
    run(5);
    forget();
    const test::OwnResources before = test::OwnResources::now();
    QElapsedTimer timer;
    timer.start();
    run(children);
    EXPECT_EQ(log.linesWith("All processes stopped gracefully").size(), 1);
    for (int i = 0; i < children; ++i) {
        EXPECT_EQ(eventsOf(QString::number(i)), QStringList({"started", "stdout: ready\n", "finished: 9"})) << i;
    }
    expectTheSame("children at once", children, before, timer.elapsed());
}

} // namespace
} // namespace ruvo
