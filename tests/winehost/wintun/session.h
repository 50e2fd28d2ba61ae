#pragma once

#include "kernel/system_call.h"
#include "library/lock.h"
#include "wintun/adapter_identity.h"
#include "wintun/packet_disorder.h"
#include "wintun/packet_ring.h"
#include "wintun/read_watcher.h"

#include <atomic>
#include <expected>
#include <memory>
#include <optional>
#include <vector>

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

/// Packets between the program and the TUN interface. Reads and writes happen on the program's own threads: a receive
/// reads, a send writes what is complete, in the order of the allocations. Linux's queue of the interface takes the
/// place of the driver's side of the receive ring.
///
/// Any thread; two locks that are never held together. The object outlives its end, so that a thread that comes late
/// gets ERROR_HANDLE_EOF instead of freed memory.
class Session
{
public:
    /// Or a Windows error.
    static std::expected<std::unique_ptr<Session>, DWORD> start(const Link &link, DWORD capacity);
    ~Session();

    HANDLE readWaitEvent() const { return m_readEvent.get(); }
    std::expected<BYTE *, DWORD> receive(DWORD &size);
    void release(const BYTE *packet);
    std::expected<BYTE *, DWORD> allocate(DWORD size);
    void send(const BYTE *packet);

    bool hasEnded() const { return m_ended; }
    /// Waiting readers are woken, whoever is inside a call finishes it; then descriptor and rings are gone.
    void end();
    /// Packets that the program held at the end.
    bool hadUnreleased() const { return m_hadUnreleased; }
    bool hadUnsent() const { return m_hadUnsent; }
    const SessionCounters &counters() const { return m_counters; }

private:
    Session(Descriptor tun, DWORD capacity);
    bool isUsable() const;
    std::expected<DWORD, DWORD> readPacket(BYTE *place);
    std::expected<BYTE *, DWORD> receiveOnce(DWORD &size);
    std::expected<BYTE *, DWORD> receiveIntoFullRing(DWORD &size);
    std::expected<BYTE *, DWORD> receiveDisordered(DWORD &size);
    BYTE *pushCopy(const PacketDisorder::Packet &packet, DWORD &size);
    void watchForNext();
    void flush();
    void adapterIsGone();

    Descriptor m_tun;
    const KernelHandle m_readEvent; // outlives the watcher
    std::atomic<bool> m_ended = false;
    SessionCounters m_counters;
    bool m_hadUnreleased = false;
    bool m_hadUnsent = false;

    Lock m_receiveLock;
    std::optional<PacketRing> m_received;
    std::atomic<bool> m_isBusy = false; ///< the last look for a packet found one
    /// A packet that was read before it was known that the ring has no room for it.
    std::vector<BYTE> m_outside;
    PacketDisorder m_disorder;

    Lock m_sendLock;
    std::optional<PacketRing> m_sending;
    /// One thread writes at a time, without the lock; what others complete meanwhile, it writes too.
    bool m_flushing = false;
    CONDITION_VARIABLE m_flushed = CONDITION_VARIABLE_INIT;

    std::optional<ReadWatcher> m_watcher;
};

} // namespace ruvo::winehost
