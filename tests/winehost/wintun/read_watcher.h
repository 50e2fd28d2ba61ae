#pragma once

#include "kernel/system_call.h"
#include "wintun/library_thread.h"

#include <optional>

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

    bool isRunning() const;
    /// The event is set at the next chance, once: at once if there is something to read already.
    void arm();

private:
    void watch();

    const int m_watched;
    const HANDLE m_event;
    const Descriptor m_poll;
    const Descriptor m_stop;
    std::optional<LibraryThread> m_thread; // ends before what it uses
};

} // namespace ruvo::winehost
