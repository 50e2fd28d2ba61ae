#include "tun/worker_housekeeping.h"

#include "tun/worker_count.h"

#include <gtest/gtest.h>

#include <vector>

namespace ruvo {
namespace {

struct Counts
{
    int completions = 0;
    std::vector<int> sweeps;
    std::vector<int> diagnostics;
};

Counts run(unsigned worker, int completions)
{
    Counts counts;
    const WorkerHousekeeping::Tasks tasks{
        .sweepIdleFlows = [&counts] { counts.sweeps.push_back(counts.completions); },
        .logConnectionStates = [&counts] { counts.diagnostics.push_back(counts.completions); },
    };
    WorkerHousekeeping housekeeping(worker, tasks);
    for (counts.completions = 1; counts.completions <= completions; ++counts.completions)
        housekeeping.afterCompletion();
    return counts;
}

TEST(WorkerHousekeeping, sweepsAtEveryHundredthCompletion)
{
    EXPECT_EQ(run(0, 350).sweeps, (std::vector{100, 200, 300}));
    EXPECT_EQ(run(3, 350).sweeps, (std::vector{100, 200, 300}));
    EXPECT_TRUE(run(0, 99).sweeps.empty());
}

TEST(WorkerHousekeeping, logsStatesAtEvery2000thCompletionOfTheFirstWorkerOnly)
{
    EXPECT_EQ(run(0, 4500).diagnostics, (std::vector{2000, 4000}));
    EXPECT_TRUE(run(1, 4500).diagnostics.empty());
}

TEST(WorkerCount, isOneForEachProcessorAndNeverNone)
{
    EXPECT_EQ(workerCount(0), 1u) << "the number of processors cannot be told";
    EXPECT_EQ(workerCount(1), 1u);
    EXPECT_EQ(workerCount(8), 8u);
}

TEST(WorkerHousekeeping, doesWithoutTasks)
{
    const WorkerHousekeeping::Tasks none;
    WorkerHousekeeping housekeeping(0, none);
    for (int i = 0; i < 2000; ++i)
        housekeeping.afterCompletion();
}

} // namespace
} // namespace ruvo
