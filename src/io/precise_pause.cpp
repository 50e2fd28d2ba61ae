#include "io/precise_pause.h"

#include "common/windows_handles.h"

namespace ruvo {

namespace {

// Not in these headers: CREATE_WAITABLE_TIMER_HIGH_RESOLUTION of synchapi.h.
constexpr DWORD highResolution = 0x2;

void WINAPI closeTimer(void *timer)
{
    const KernelHandle closed(timer);
}

/// Each thread's own; Windows calls closeTimer when the thread ends. Not a thread_local with a destructor: this
/// compiler's run time frees the storage of those before it runs their destructors. Null before Windows 10 1803.
HANDLE pauseTimer()
{
    static const DWORD s_slot = FlsAlloc(closeTimer);
    if (s_slot == FLS_OUT_OF_INDEXES)
        return nullptr;
    if (void *known = FlsGetValue(s_slot))
        return known;
    KernelHandle timer(CreateWaitableTimerExW(nullptr, nullptr, highResolution, TIMER_ALL_ACCESS));
    if (!timer || !FlsSetValue(s_slot, timer.get()))
        return nullptr;
    return timer.release();
}

} // namespace

void precisePause(std::chrono::milliseconds time)
{
    const auto milliseconds = static_cast<DWORD>(time.count());
    LARGE_INTEGER due;
    due.QuadPart = time.count() * -10'000; // in 100 ns; negative: from now on
    const HANDLE timer = pauseTimer();
    if (!timer || !SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)
        || WaitForSingleObject(timer, milliseconds + 10) == WAIT_FAILED) {
        Sleep(milliseconds);
    }
}

} // namespace ruvo
