#pragma once

#include <cstddef>
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

} // namespace ruvo::test
