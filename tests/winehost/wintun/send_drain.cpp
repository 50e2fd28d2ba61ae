#include "wintun/send_drain.h"

#include "wintun/misuse.h"
#include "wintun/packet_plan.h"

#include <utility>

namespace ruvo::winehost {

SendDrain::SendDrain(const Descriptor &tun, DWORD capacity, SessionState &state)
    : m_tun(tun.get()), m_state(state), m_ring(std::in_place, capacity)
{
    if (m_ring->isValid())
        m_thread.emplace([this] { run(); });
}

SendDrain::~SendDrain()
{
    end();
}

bool SendDrain::isRunning() const
{
    return m_thread && m_thread->isRunning();
}

bool SendDrain::end()
{
    {
        const std::lock_guard lock(m_lock);
        m_isEnding = true;
    }
    WakeConditionVariable(&m_work);
    m_thread.reset();
    const std::lock_guard lock(m_lock);
    const bool isHeld = m_ring && !m_ring->isEmpty();
    m_ring.reset();
    return isHeld;
}

// Wintun does not look at sizes: it hands out room for no bytes, and for more than a packet may have; no program may
// ask for either. Behind the ring there is room for the largest packet only.
std::expected<BYTE *, DWORD> SendDrain::allocate(DWORD size)
{
    const std::lock_guard lock(m_lock);
    if (!m_ring)
        noteMisuse("WintunAllocateSendPacket", "after the end of the session");
    if (!m_ring || m_state.hasEnded)
        return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
    if (size > PacketRing::largestPacket) {
        noteMisuse("WintunAllocateSendPacket", "larger than a packet can be");
        return std::unexpected<DWORD>(ERROR_BUFFER_OVERFLOW);
    }
    if (!m_ring->hasRoomFor(size) || plannedPackets().current().isFullAt(GetTickCount64())) {
        m_state.counters.refusedFull.fetch_add(1, std::memory_order_relaxed);
        return std::unexpected<DWORD>(ERROR_BUFFER_OVERFLOW);
    }
    return m_ring->push(size);
}

void SendDrain::send(const BYTE *packet)
{
    std::unique_lock lock(m_lock);
    if (!m_ring)
        return noteMisuse("WintunSendPacket", "after the end of the session");
    switch (m_ring->finish(packet)) {
    case PacketRing::Finish::done: break;
    case PacketRing::Finish::notHeld: return noteMisuse("WintunSendPacket", "no packet that was allocated");
    case PacketRing::Finish::overrun: noteMisuse("WintunSendPacket", "written past its end"); break;
    }
    const bool isToBeWoken = m_isAsleep && m_ring->front() != PacketRing::Front::held;
    if (!isToBeWoken)
        return;
    m_isAsleep = false;
    lock.unlock(); // or the thread would wake only to wait for it
    WakeConditionVariable(&m_work);
}

void SendDrain::run()
{
    std::unique_lock lock(m_lock);
    for (;;) {
        switch (m_ring->front()) {
        case PacketRing::Front::finished: writeFront(lock); break;
        case PacketRing::Front::damaged:
            noteMisuse("WintunSendPacket", "the ring is damaged");
            m_state.end();
            return;
        case PacketRing::Front::none:
        case PacketRing::Front::held:
            if (m_isEnding)
                return;
            m_isAsleep = true;
            m_lock.wait(m_work);
            m_isAsleep = false;
        }
    }
}

void SendDrain::writeFront(std::unique_lock<Lock> &lock)
{
    const BYTE *packet = m_ring->frontPacket();
    const DWORD size = m_ring->frontSize();
    lock.unlock();
    const std::int64_t written = systemCall(SystemCall::write, m_tun, packet, size);
    lock.lock();
    m_ring->popFront();
    if (written > 0 && written == static_cast<std::int64_t>(size)) {
        m_state.counters.sent.fetch_add(1, std::memory_order_relaxed);
        m_state.counters.sentBytes.fetch_add(size, std::memory_order_relaxed);
    } else {
        m_state.counters.dropped.fetch_add(1, std::memory_order_relaxed);
        if (written == -linux_error::badDescriptorState)
            m_state.end();
    }
}

} // namespace ruvo::winehost
