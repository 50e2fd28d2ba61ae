#pragma once

#include "kernel/system_call.h"
#include "wintun/library_thread.h"

#include <atomic>
#include <optional>

namespace ruvo::winehost {

/// Sets an event for packets that come in, in the driver's place: a thread that sleeps until the TUN interface has
/// some. Reading itself stays with the program's threads.
///
/// The driver sets the event with every packet. Here that would be a thread's wake-up and a call of Wine's server for
/// each packet of a busy stream, so it is done at once only where a reader has found nothing. All other packets have
/// the event set within 10 ms, so that a program may also wait before it has ever received, or before it has taken
/// all.
class ReadWatcher
{
public:
    /// Check isRunning() first. Both handles stay the caller's and have to outlive this. It starts armed.
    ReadWatcher(const Descriptor &tun, HANDLE event);
    ~ReadWatcher();
    ReadWatcher(const ReadWatcher &) = delete;
    ReadWatcher &operator=(const ReadWatcher &) = delete;

    bool isRunning() const;
    /// The event is set for the next packet without delay, once: at once if there is something to read already. Any
    /// thread; costs next to nothing where it is armed.
    void arm();

private:
    void watch();
    void lookBetween();
    bool takeNews();
    bool isReadable() const;

    const int m_tun;
    const HANDLE m_event;
    const Descriptor m_poll;
    const Descriptor m_stop;
    const Descriptor m_news; ///< ready if a packet came since the last look
    std::atomic<bool> m_isArmed = true;
    std::optional<LibraryThread> m_thread; // ends before what it uses
};

} // namespace ruvo::winehost
