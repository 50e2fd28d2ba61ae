#pragma once

#include "kernel/system_call.h"
#include "library/lock.h"
#include "wintun/adapter_identity.h"
#include "wintun/packet_disorder.h"
#include "wintun/packet_ring.h"
#include "wintun/read_watcher.h"
#include "wintun/send_drain.h"
#include "wintun/session_state.h"

#include <expected>
#include <memory>
#include <optional>
#include <vector>

namespace ruvo::winehost {

/// Packets between the program and the TUN interface. What comes in is read on the program's own threads: Linux's
/// queue of the interface takes the place of the driver's side of the receive ring. What goes out is written by a
/// thread of its own.
///
/// Any thread; two locks that are never held together. The object outlives its end, so that a thread that comes late
/// gets ERROR_HANDLE_EOF instead of freed memory.
class Session
{
public:
    /// Or a Windows error.
    static std::expected<std::unique_ptr<Session>, DWORD> start(const Link &link, DWORD capacity);
    ~Session();

    HANDLE readWaitEvent();
    std::expected<BYTE *, DWORD> receive(DWORD &size);
    void release(const BYTE *packet);
    std::expected<BYTE *, DWORD> allocate(DWORD size) { return m_sending.allocate(size); }
    void send(const BYTE *packet) { m_sending.send(packet); }

    /// What is finished goes out, waiting readers are woken, whoever is inside a call finishes it; then descriptor
    /// and rings are gone.
    void end();
    /// Packets that the program held at the end.
    bool hadUnreleased() const { return m_hadUnreleased; }
    bool hadUnsent() const { return m_hadUnsent; }
    const SessionCounters &counters() const { return m_state.counters; }

private:
    Session(Descriptor tun, DWORD capacity);
    bool isUsable() const;
    std::expected<DWORD, DWORD> readPacket(BYTE *place);
    std::expected<BYTE *, DWORD> receiveNext(DWORD &size);
    std::expected<BYTE *, DWORD> receiveIntoFullRing(DWORD &size);
    std::expected<BYTE *, DWORD> receiveDisordered(DWORD &size);
    BYTE *pushCopy(const PacketDisorder::Packet &packet, DWORD &size);

    Descriptor m_tun;
    SessionState m_state;
    bool m_hadUnreleased = false;
    bool m_hadUnsent = false;

    Lock m_receiveLock;
    std::optional<PacketRing> m_received;
    /// A packet that was read before it was known that the ring has no room for it.
    std::vector<BYTE> m_outside;
    PacketDisorder m_disorder;

    SendDrain m_sending;
    std::optional<ReadWatcher> m_watcher;
};

} // namespace ruvo::winehost
