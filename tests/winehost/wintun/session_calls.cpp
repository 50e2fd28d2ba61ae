// The functions of wintun.dll that deal with a session and its packets. Those of packets take the handle for what it
// is, without looking it up, and write no journal.

#include "library/planned_call.h"
#include "wintun/handles.h"
#include "wintun/logger.h"
#include "wintun/misuse.h"

namespace {

using namespace ruvo::winehost;

PacketFault s_receiveFault("WintunReceivePacket");
PacketFault s_allocateFault("WintunAllocateSendPacket");

Session &sessionOf(WINTUN_SESSION_HANDLE handle)
{
    return *reinterpret_cast<Session *>(handle);
}

std::expected<std::unique_ptr<Session>, DWORD> startSession(WINTUN_ADAPTER_HANDLE handle, DWORD capacity)
{
    const Adapter *adapter = Handles::instance().find(handle);
    if (!adapter)
        return std::unexpected<DWORD>(ERROR_INVALID_HANDLE);
    const auto link = adapter->currentLink();
    if (!link)
        return std::unexpected<DWORD>(ERROR_FILE_NOT_FOUND);
    return Session::start(*link, capacity);
}

void addCounters(JournalEntry &entry, const Session &session)
{
    const SessionCounters &counters = session.counters();
    entry.add("received", counters.received.load())
        .add("received-bytes", counters.receivedBytes.load())
        .add("empty-reads", counters.emptyReads.load())
        .add("sent", counters.sent.load())
        .add("sent-bytes", counters.sentBytes.load())
        .add("refused-full", counters.refusedFull.load())
        .add("dropped", counters.dropped.load())
        .add("unreleased", session.hadUnreleased())
        .add("unsent", session.hadUnsent());
    if (counters.overtaken > 0 || counters.repeated > 0)
        entry.add("overtaken", counters.overtaken.load()).add("repeated", counters.repeated.load());
}

BYTE *give(const std::expected<BYTE *, DWORD> &packet)
{
    if (packet)
        return *packet;
    SetLastError(packet.error());
    return nullptr;
}

} // namespace

extern "C" {

WINTUN_SESSION_HANDLE WINAPI WintunStartSession(WINTUN_ADAPTER_HANDLE adapter, DWORD capacity)
{
    PlannedCall call("WintunStartSession");
    call.add("capacity", capacity);
    auto session = call.fault() ? std::unexpected(*call.fault()) : startSession(adapter, capacity);
    call.addError(session ? NO_ERROR : session.error());
    if (!session) {
        logLine(WINTUN_LOG_ERR, L"Failed to start session: error " + std::to_wstring(session.error()));
        SetLastError(session.error());
        return nullptr;
    }
    s_receiveFault.lookNow();
    s_allocateFault.lookNow();
    plannedPackets().lookNow();
    return Handles::instance().add(*std::move(session));
}

void WINAPI WintunEndSession(WINTUN_SESSION_HANDLE handle)
{
    const ruvo::LastErrorKeeper keeper;
    JournalEntry entry("WintunEndSession");
    Session *session = Handles::instance().find(handle);
    if (!session)
        return noteMisuse("WintunEndSession", "no running session");
    session->end();
    addCounters(entry, *session);
    Handles::instance().retire(handle);
}

HANDLE WINAPI WintunGetReadWaitEvent(WINTUN_SESSION_HANDLE handle)
{
    const JournalEntry entry("WintunGetReadWaitEvent");
    return sessionOf(handle).readWaitEvent();
}

BYTE *WINAPI WintunReceivePacket(WINTUN_SESSION_HANDLE handle, DWORD *packetSize)
{
    if (const auto error = s_receiveFault.next())
        return give(std::unexpected(*error));
    return give(sessionOf(handle).receive(*packetSize));
}

void WINAPI WintunReleaseReceivePacket(WINTUN_SESSION_HANDLE handle, const BYTE *packet)
{
    sessionOf(handle).release(packet);
}

BYTE *WINAPI WintunAllocateSendPacket(WINTUN_SESSION_HANDLE handle, DWORD packetSize)
{
    if (const auto error = s_allocateFault.next())
        return give(std::unexpected(*error));
    return give(sessionOf(handle).allocate(packetSize));
}

void WINAPI WintunSendPacket(WINTUN_SESSION_HANDLE handle, const BYTE *packet)
{
    sessionOf(handle).send(packet);
}

} // extern "C"
