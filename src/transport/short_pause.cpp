#include "transport/short_pause.h"

#include "common/windows_handles.h"

namespace ruvo {

namespace {

// Not in these headers: CREATE_WAITABLE_TIMER_HIGH_RESOLUTION of synchapi.h.
constexpr DWORD highResolution = 0x2;
constexpr LONGLONG pauseTime = 1000; // in 100 ns

/// Each thread's own. Null before Windows 10 1803.
HANDLE pauseTimer()
{
    thread_local const KernelHandle timer(
        CreateWaitableTimerExW(nullptr, nullptr, highResolution, TIMER_ALL_ACCESS));
    return timer.get();
}

} // namespace

void shortPause()
{
    LARGE_INTEGER due;
    due.QuadPart = -pauseTime; // negative: from now on
    const HANDLE timer = pauseTimer();
    if (!timer || !SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)
        || WaitForSingleObject(timer, 10) == WAIT_FAILED) {
        SwitchToThread();
    }
}

} // namespace ruvo
