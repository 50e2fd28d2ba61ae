#pragma once

#include "common/windows_handles.h"
#include "kernel/system_call.h"

namespace ruvo::winehost {

/// Sets an event once a descriptor has something to read, or has failed: a thread that sleeps until then. Reading
/// itself stays with the program's threads; this one does nothing while they find packets.
class ReadWatcher
{
public:
    /// Check isRunning() first. Both handles stay the caller's and have to outlive this.
    ReadWatcher(const Descriptor &watched, HANDLE event);
    ~ReadWatcher();
    ReadWatcher(const ReadWatcher &) = delete;
    ReadWatcher &operator=(const ReadWatcher &) = delete;

    bool isRunning() const { return static_cast<bool>(m_thread); }
    /// The event is set at the next chance, once: at once if there is something to read already.
    void arm();

private:
    static DWORD WINAPI run(void *watcher);
    void watch();

    const int m_watched;
    const HANDLE m_event;
    const Descriptor m_poll;
    const Descriptor m_stop;
    KernelHandle m_thread;
};

} // namespace ruvo::winehost
