#include "windows/support/own_resources.h"

#include "common/windows_handles.h"

#include <gtest/gtest.h>

#include <vector>

namespace ruvo::test {
namespace {

constexpr std::chrono::milliseconds moment(200);

void openAnEvent(std::vector<KernelHandle> &events)
{
    events.emplace_back(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ASSERT_TRUE(events.back());
}

TEST(OwnResources, areLeftByARoundThatLeaksEachTime)
{
    std::vector<KernelHandle> leaked;
    EXPECT_FALSE(leavesNoHandles([&] { openAnEvent(leaked); }, 2, moment));
    EXPECT_EQ(leaked.size(), 2u);
}

TEST(OwnResources, areLeftByALeakThoughSomethingElseIsClosed)
{
    std::vector<KernelHandle> older;
    for (int i = 0; i < 4; ++i)
        openAnEvent(older);
    std::vector<KernelHandle> leaked;
    EXPECT_FALSE(leavesNoHandles(
        [&] {
            openAnEvent(leaked);
            older.pop_back();
            older.pop_back();
        },
        1, moment));
}

TEST(OwnResources, areNotLeftByARoundThatOpensSomethingOnceForGood)
{
    std::vector<KernelHandle> kept;
    int rounds = 0;
    EXPECT_TRUE(leavesNoHandles(
        [&] {
            if (++rounds == 1)
                openAnEvent(kept);
        },
        4, moment));
    EXPECT_EQ(rounds, 2);
}

TEST(OwnResources, areNotLeftByARoundThatClosesWhatItOpens)
{
    int rounds = 0;
    EXPECT_TRUE(leavesNoHandles([&] {
        ++rounds;
        std::vector<KernelHandle> closed;
        openAnEvent(closed);
    }));
    EXPECT_EQ(rounds, 1);
}

} // namespace
} // namespace ruvo::test
