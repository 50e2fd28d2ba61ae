#pragma once

#include "common/windows_handles.h"

#include <atomic>

namespace ruvo::winehost {

/// What went through a session, for the journal.
struct SessionCounters
{
    std::atomic<ULONGLONG> received = 0;
    std::atomic<ULONGLONG> receivedBytes = 0;
    std::atomic<ULONGLONG> emptyReads = 0;
    std::atomic<ULONGLONG> sent = 0;
    std::atomic<ULONGLONG> sentBytes = 0;
    std::atomic<ULONGLONG> refusedFull = 0; ///< no room in the send ring
    std::atomic<ULONGLONG> dropped = 0;     ///< refused by Linux: no IP packet, or the interface is down
    std::atomic<ULONGLONG> overtaken = 0;   ///< as a test has planned it
    std::atomic<ULONGLONG> repeated = 0;    ///< the same
};

/// What both directions of a session share. Any thread.
struct SessionState
{
    const KernelHandle readEvent{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    std::atomic<bool> hasEnded = false; ///< by the program, or because there is no adapter any more
    SessionCounters counters;

    /// The event is set again for each reader that learns of the end: it wakes one thread at a time.
    void end()
    {
        hasEnded = true;
        SetEvent(readEvent.get());
    }
};

} // namespace ruvo::winehost
