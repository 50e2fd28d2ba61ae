#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

namespace ruvo::test {

/// What this process holds at a moment: the things that a leak adds to.
struct OwnResources
{
    std::size_t handles = 0;
    std::size_t threads = 0;
    /// Bytes in allocated blocks of the process heap.
    std::size_t heapBytes = 0;
    std::size_t workingSet = 0;

    static OwnResources now();
    /// For the output of a test.
    std::string text() const;
};

/// The handles that this process has open, but for semaphores: Windows gives one to each critical section for good
/// when two threads first meet there, which may be at any time.
std::size_t countOwnHandles();

/// Waits, in the event loop, until this process has no more handles than `count`: what ended closes its own late.
bool waitForHandles(std::size_t count);

/// Whether `round` leaves no handle open. A leak comes with every round; what is opened once for good (the event of a
/// lock that two threads first meet at, which may be at any time) comes with one of them: so one round without is
/// enough. What closes meanwhile makes up for nothing. Waits after each round for what ended to close its own, in
/// the event loop. Where every round leaves some, prints what the last one left.
bool leavesNoHandles(const std::function<void()> &round, int rounds = 4,
                     std::chrono::milliseconds patience = std::chrono::seconds(6));

} // namespace ruvo::test
