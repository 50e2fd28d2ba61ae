#pragma once

#include "kernel/system_call.h"
#include "library/lock.h"
#include "wintun/library_thread.h"
#include "wintun/packet_ring.h"
#include "wintun/session_state.h"

#include <expected>
#include <mutex>
#include <optional>

namespace ruvo::winehost {

/// The way out: the send ring, and in the driver's place a thread that hands what the program has finished to the TUN
/// interface, in the order of the allocations. So the program never pays for what Linux does with a packet, and the
/// ring fills when Linux is slower than the program.
///
/// Any thread; one lock, which is not held while a packet is written.
class SendDrain
{
public:
    /// Check isRunning() first. `tun` and `state` stay the caller's and have to outlive this.
    SendDrain(const Descriptor &tun, DWORD capacity, SessionState &state);
    ~SendDrain();
    SendDrain(const SendDrain &) = delete;
    SendDrain &operator=(const SendDrain &) = delete;

    bool isRunning() const;
    std::expected<BYTE *, DWORD> allocate(DWORD size);
    void send(const BYTE *packet);
    /// Once what is finished has been written; then the ring is gone, and the counters of what was sent are final.
    /// Whether the program held packets.
    bool end();

private:
    void run();
    void writeFront(std::unique_lock<Lock> &lock);

    const int m_tun;
    SessionState &m_state;
    Lock m_lock;
    std::optional<PacketRing> m_ring;
    CONDITION_VARIABLE m_work = CONDITION_VARIABLE_INIT;
    bool m_isAsleep = false; ///< the thread, and nobody has woken it
    bool m_isEnding = false;
    std::optional<LibraryThread> m_thread;
};

} // namespace ruvo::winehost
