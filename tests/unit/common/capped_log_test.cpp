#include "common/capped_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

/// The numbers, from 1, of those of `count` occurrences that are written.
std::vector<int> written(CappedLog &log, int count)
{
    std::vector<int> numbers;
    for (int number = 1; number <= count; ++number) {
        if (log.take())
            numbers.push_back(number);
    }
    return numbers;
}

TEST(CappedLog, writesTheFirstOccurrencesAndNoMore)
{
    CappedLog log(3);
    EXPECT_EQ(written(log, 1000), (std::vector<int>{1, 2, 3}));
}

TEST(CappedLog, writesTheFirstAndEveryFiftiethOfAllOccurrences)
{
    CappedLog log(5, 50);
    EXPECT_EQ(written(log, 201), (std::vector<int>{1, 2, 3, 4, 5, 50, 100, 150, 200}));
}

TEST(CappedLog, writesAnOccurrenceOnceThatIsAmongTheFirstAndAMultiple)
{
    CappedLog log(4, 2);
    EXPECT_EQ(written(log, 8), (std::vector<int>{1, 2, 3, 4, 6, 8}));
}

TEST(CappedLog, writesNothingWithoutAFirst)
{
    CappedLog never(0);
    EXPECT_EQ(written(never, 10), std::vector<int>{});
    CappedLog multiples(0, 4);
    EXPECT_EQ(written(multiples, 10), (std::vector<int>{4, 8}));
}

/// How many of 8 × 10,000 occurrences are written when eight threads count at once.
int writtenByEightThreads(CappedLog &log)
{
    std::atomic<int> taken = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 10000; ++n)
                taken += log.take() ? 1 : 0;
        });
    }
    threads.clear();
    return taken;
}

TEST(CappedLog, writesAsManyWhenManyThreadsCount)
{
    CappedLog first(20);
    EXPECT_EQ(writtenByEightThreads(first), 20);
    CappedLog firstAndEvery(5, 100);
    EXPECT_EQ(writtenByEightThreads(firstAndEvery), 5 + 80000 / 100);
}

} // namespace
} // namespace ruvo
