#include "wintun/session.h"

#include "kernel/tun_device.h"
#include "wintun/misuse.h"
#include "wintun/wintun_api.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <mutex>

namespace ruvo::winehost {

namespace {

// As many packets as the ring would hold at a usual size, within what Linux bears.
std::uint32_t queueLengthFor(DWORD capacity)
{
    constexpr DWORD usualPacket = 1600;
    return std::clamp<std::uint32_t>(capacity / usualPacket, 500, 10000);
}

// An interface that nobody held is brought to life in the background: until then it would swallow packets.
void waitUntilRunning(std::uint32_t index)
{
    constexpr int mostMs = 2000;
    for (int i = 0; i < mostMs; ++i) {
        const auto link = linkByIndex(index);
        if (!link || link->isRunning())
            return;
        Sleep(1);
    }
}

bool isRingCapacity(DWORD capacity)
{
    return std::has_single_bit(capacity) && capacity >= WINTUN_MIN_RING_CAPACITY
           && capacity <= WINTUN_MAX_RING_CAPACITY;
}

} // namespace

std::expected<std::unique_ptr<Session>, DWORD> Session::start(const Link &link, DWORD capacity)
{
    if (!isRingCapacity(capacity))
        return std::unexpected<DWORD>(ERROR_INVALID_PARAMETER);
    if (link.tunQueues > 0)
        return std::unexpected<DWORD>(ERROR_ALREADY_INITIALIZED);
    auto tun = openTun(link.name, TunInterface::exists);
    if (!tun)
        return std::unexpected<DWORD>(tun.error() == linux_error::accessDenied ? ERROR_ACCESS_DENIED
                                                                               : ERROR_GEN_FAILURE);
    changeLink(link.index, {.queueLength = queueLengthFor(capacity), .bringUp = true});
    std::unique_ptr<Session> session(new Session(*std::move(tun), capacity));
    if (!session->isUsable())
        return std::unexpected<DWORD>(ERROR_NOT_ENOUGH_MEMORY);
    waitUntilRunning(link.index);
    return session;
}

Session::Session(Descriptor tun, DWORD capacity)
    : m_tun(std::move(tun))
    , m_received(std::in_place, capacity)
    , m_sending(m_tun, capacity, m_state)
    , m_watcher(std::in_place, m_tun, m_state.readEvent.get())
{}

Session::~Session()
{
    end();
}

bool Session::isUsable() const
{
    return m_state.readEvent && m_received->isValid() && m_sending.isRunning() && m_watcher->isRunning();
}

void Session::end()
{
    m_state.hasEnded = true;
    m_hadUnsent = m_sending.end() || m_hadUnsent;
    const std::lock_guard lock(m_receiveLock);
    m_hadUnreleased = m_hadUnreleased || (m_received && !m_received->isEmpty());
    m_received.reset();
    m_watcher.reset();
    m_tun.reset();
    m_state.end();
}

HANDLE Session::readWaitEvent()
{
    const std::lock_guard lock(m_receiveLock);
    if (!m_received)
        noteMisuse("WintunGetReadWaitEvent", "after the end of the session");
    return m_state.readEvent.get();
}

/// The size of the packet that was read to `place`.
std::expected<DWORD, DWORD> Session::readPacket(BYTE *place)
{
    for (;;) {
        const std::int64_t size = systemCall(SystemCall::read, m_tun.get(), place, PacketRing::largestPacket);
        if (size > 0) {
            m_state.counters.received.fetch_add(1, std::memory_order_relaxed);
            m_state.counters.receivedBytes.fetch_add(static_cast<ULONGLONG>(size), std::memory_order_relaxed);
            return static_cast<DWORD>(size);
        }
        if (size == -linux_error::tryAgain)
            return std::unexpected<DWORD>(ERROR_NO_MORE_ITEMS);
        if (size != -linux_error::interrupted) {
            m_state.end();
            return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
        }
    }
}

// While a packet waits outside, the reader is woken when the program releases something: what else lies in Linux's
// queue would find no room either.
std::expected<BYTE *, DWORD> Session::receive(DWORD &size)
{
    const std::lock_guard lock(m_receiveLock);
    if (!m_received)
        noteMisuse("WintunReceivePacket", "after the end of the session");
    if (m_state.hasEnded) {
        m_state.end();
        return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
    }
    auto packet = receiveNext(size);
    if (!packet && packet.error() == ERROR_NO_MORE_ITEMS) {
        m_state.counters.emptyReads.fetch_add(1, std::memory_order_relaxed);
        if (m_outside.empty())
            m_watcher->arm();
    }
    return packet;
}

std::expected<BYTE *, DWORD> Session::receiveNext(DWORD &size)
{
    if (m_received->front() == PacketRing::Front::damaged)
        return std::unexpected<DWORD>(ERROR_INVALID_DATA);
    if (!m_outside.empty() || !m_received->hasRoomFor(PacketRing::largestPacket))
        return receiveIntoFullRing(size);
    m_disorder.follow(plannedPackets().current());
    if (m_disorder.isActive()) [[unlikely]]
        return receiveDisordered(size);
    const auto read = readPacket(m_received->nextPlace());
    if (!read)
        return std::unexpected(read.error());
    size = *read;
    return m_received->push(size);
}

// A packet that is kept waits for others for a few milliseconds only: a flow that waits for it sends no more.
std::expected<BYTE *, DWORD> Session::receiveDisordered(DWORD &size)
{
    constexpr int patienceMs = 5;
    for (int waited = 0;;) {
        if (const auto due = m_disorder.takeDue())
            return pushCopy(*due, size);
        BYTE *place = m_received->nextPlace();
        const auto read = readPacket(place);
        if (!read) {
            if (read.error() != ERROR_NO_MORE_ITEMS || !m_disorder.isKeeping())
                return std::unexpected(read.error());
            if (waited++ < patienceMs)
                Sleep(1);
            else
                return pushCopy(m_disorder.takeNext(), size);
            continue;
        }
        const bool isAdmitted = m_disorder.admit({place, *read});
        m_state.counters.overtaken = m_disorder.overtaken();
        m_state.counters.repeated = m_disorder.repeated();
        if (isAdmitted) {
            size = *read;
            return m_received->push(size);
        }
    }
}

BYTE *Session::pushCopy(const PacketDisorder::Packet &packet, DWORD &size)
{
    size = static_cast<DWORD>(packet.size());
    BYTE *place = m_received->push(size);
    std::ranges::copy(packet, place);
    return place;
}

// Whether a packet fits is known only once it has been read. One that does not fit waits outside.
std::expected<BYTE *, DWORD> Session::receiveIntoFullRing(DWORD &size)
{
    if (m_outside.empty()) {
        m_outside.resize(PacketRing::largestPacket);
        const auto read = readPacket(m_outside.data());
        m_outside.resize(read.value_or(0));
        if (!read)
            return std::unexpected(read.error());
    }
    size = static_cast<DWORD>(m_outside.size());
    if (!m_received->hasRoomFor(size))
        return std::unexpected<DWORD>(ERROR_NO_MORE_ITEMS);
    BYTE *packet = m_received->push(size);
    std::ranges::copy(m_outside, packet);
    m_outside.clear();
    return packet;
}

void Session::release(const BYTE *packet)
{
    const std::lock_guard lock(m_receiveLock);
    if (!m_received)
        return noteMisuse("WintunReleaseReceivePacket", "after the end of the session");
    switch (m_received->finish(packet)) {
    case PacketRing::Finish::done: break;
    case PacketRing::Finish::notHeld: return noteMisuse("WintunReleaseReceivePacket", "no packet to be released");
    case PacketRing::Finish::overrun: noteMisuse("WintunReleaseReceivePacket", "written past its end"); break;
    }
    while (m_received->front() == PacketRing::Front::finished)
        m_received->popFront();
    if (!m_outside.empty())
        SetEvent(m_state.readEvent.get());
}

} // namespace ruvo::winehost
