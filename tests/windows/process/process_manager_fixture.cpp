#include "windows/process/process_manager_fixture.h"

#include "process/managed_process.h"

#include <QTimer>

#include <vector>

namespace ruvo {

namespace {

constexpr int poolSize = 20;
constexpr auto untilSwept = std::chrono::milliseconds(1300);

/// Managers that wait for their test: so the second passes for many of them at once.
std::vector<std::unique_ptr<ProcessManager>> s_pool;

/// They have timers, and so go before the application does.
class PoolEnd : public ::testing::Environment
{
public:
    void TearDown() override { s_pool.clear(); }
};
const ::testing::Environment *const s_poolEnd = ::testing::AddGlobalTestEnvironment(new PoolEnd);

} // namespace

std::unique_ptr<ProcessManager> sweptManager()
{
    if (s_pool.empty()) {
        for (int i = 0; i < poolSize; ++i)
            s_pool.push_back(std::make_unique<ProcessManager>());
        test::waitUntil([] { return false; }, untilSwept);
    }
    std::unique_ptr<ProcessManager> manager = std::move(s_pool.back());
    s_pool.pop_back();
    return manager;
}

void ProcessManagerTest::runUnflushed(const QString &processId, const QStringList &script, qsizetype bytes)
{
    auto *flushTimer = manager->findChild<QTimer *>({}, Qt::FindDirectChildrenOnly);
    ASSERT_TRUE(flushTimer);
    flushTimer->stop();
    ASSERT_EQ(start(processId, script)["status"], "started");

    const auto *process = manager->findChild<ManagedProcess *>();
    ASSERT_TRUE(process);
    qsizetype arrived = 0;
    const QObject listening; // until the end of this function
    const auto count = [&arrived](const QString &, const QByteArray &data) { arrived += data.size(); };
    QObject::connect(process, &ManagedProcess::stdoutReady, &listening, count);
    QObject::connect(process, &ManagedProcess::stderrReady, &listening, count);
    ASSERT_TRUE(test::waitUntil([&] { return arrived >= bytes; }));
    EXPECT_EQ(eventsOf(processId), QStringList({"started"}));

    ASSERT_TRUE(TerminateProcess(process->info().processHandle, 5));
    ASSERT_TRUE(waitFor(processId, "finished: 5"));
}

} // namespace ruvo
