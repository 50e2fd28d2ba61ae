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
    , m_readEvent(CreateEventW(nullptr, FALSE, FALSE, nullptr))
    , m_received(std::in_place, capacity)
    , m_sending(std::in_place, capacity)
    , m_watcher(std::in_place, m_tun, m_readEvent.get())
{}

Session::~Session()
{
    end();
}

bool Session::isUsable() const
{
    return m_readEvent && m_received->isValid() && m_sending->isValid() && m_watcher->isRunning();
}

void Session::end()
{
    {
        const std::lock_guard lock(m_sendLock);
        m_ended = true;
        while (m_flushing)
            m_sendLock.wait(m_flushed);
        m_hadUnsent = m_hadUnsent || (m_sending && !m_sending->isEmpty());
        m_sending.reset();
    }
    const std::lock_guard lock(m_receiveLock);
    m_hadUnreleased = m_hadUnreleased || (m_received && !m_received->isEmpty());
    m_received.reset();
    m_watcher.reset();
    m_tun.reset();
    SetEvent(m_readEvent.get());
}

// The event is set again for each reader that learns of the end: it wakes one thread at a time.
void Session::adapterIsGone()
{
    m_ended = true;
    SetEvent(m_readEvent.get());
}

/// The size of the packet that was read to `place`.
std::expected<DWORD, DWORD> Session::readPacket(BYTE *place)
{
    for (;;) {
        const std::int64_t size = systemCall(SystemCall::read, m_tun.get(), place, PacketRing::largestPacket);
        if (size > 0) {
            m_counters.received.fetch_add(1, std::memory_order_relaxed);
            m_counters.receivedBytes.fetch_add(static_cast<ULONGLONG>(size), std::memory_order_relaxed);
            return static_cast<DWORD>(size);
        }
        if (size == -linux_error::tryAgain)
            return std::unexpected<DWORD>(ERROR_NO_MORE_ITEMS);
        if (size != -linux_error::interrupted) {
            adapterIsGone();
            return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
        }
    }
}

// A reader that sleeps is woken through another thread and Wine's server, which takes longer than the next packet of
// a busy stream takes to come: for that one a few more looks are worth while.
std::expected<BYTE *, DWORD> Session::receive(DWORD &size)
{
    constexpr int looks = 30;
    const bool isBusy = m_isBusy.load(std::memory_order_relaxed);
    auto packet = receiveOnce(size);
    for (int i = 1; isBusy && i < looks && !packet && packet.error() == ERROR_NO_MORE_ITEMS; ++i) {
        systemCall(SystemCall::yield, 0);
        packet = receiveOnce(size);
    }
    m_isBusy.store(packet.has_value(), std::memory_order_relaxed);
    if (!packet && packet.error() == ERROR_NO_MORE_ITEMS) {
        m_counters.emptyReads.fetch_add(1, std::memory_order_relaxed);
        watchForNext();
    }
    return packet;
}

std::expected<BYTE *, DWORD> Session::receiveOnce(DWORD &size)
{
    const std::lock_guard lock(m_receiveLock);
    if (m_ended) {
        adapterIsGone();
        return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
    }
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
        m_counters.overtaken = m_disorder.overtaken();
        m_counters.repeated = m_disorder.repeated();
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

// While a packet waits outside, the reader is woken when the program releases something: the descriptor may stay
// ready.
void Session::watchForNext()
{
    const std::lock_guard lock(m_receiveLock);
    if (m_watcher && m_outside.empty())
        m_watcher->arm();
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
        SetEvent(m_readEvent.get());
}

std::expected<BYTE *, DWORD> Session::allocate(DWORD size)
{
    const std::lock_guard lock(m_sendLock);
    if (m_ended)
        return std::unexpected<DWORD>(ERROR_HANDLE_EOF);
    if (size == 0 || size > PacketRing::largestPacket)
        return std::unexpected<DWORD>(ERROR_INVALID_PARAMETER);
    if (!m_sending->hasRoomFor(size) || plannedPackets().current().isFullAt(GetTickCount64())) {
        m_counters.refusedFull.fetch_add(1, std::memory_order_relaxed);
        return std::unexpected<DWORD>(ERROR_BUFFER_OVERFLOW);
    }
    return m_sending->push(size);
}

void Session::send(const BYTE *packet)
{
    const std::lock_guard lock(m_sendLock);
    if (!m_sending)
        return noteMisuse("WintunSendPacket", "after the end of the session");
    switch (m_sending->finish(packet)) {
    case PacketRing::Finish::done: break;
    case PacketRing::Finish::notHeld: return noteMisuse("WintunSendPacket", "no packet that was allocated");
    case PacketRing::Finish::overrun: noteMisuse("WintunSendPacket", "written past its end"); break;
    }
    if (!m_flushing)
        flush();
}

/// Under the lock, which it gives up while it writes.
void Session::flush()
{
    m_flushing = true;
    while (m_sending->front() == PacketRing::Front::finished) {
        const BYTE *packet = m_sending->frontPacket();
        const DWORD size = m_sending->frontSize();
        m_sendLock.unlock();
        const std::int64_t written = systemCall(SystemCall::write, m_tun.get(), packet, size);
        m_sendLock.lock();
        m_sending->popFront();
        if (written == static_cast<std::int64_t>(size)) {
            m_counters.sent.fetch_add(1, std::memory_order_relaxed);
            m_counters.sentBytes.fetch_add(size, std::memory_order_relaxed);
        } else {
            m_counters.dropped.fetch_add(1, std::memory_order_relaxed);
            if (written == -linux_error::badDescriptorState)
                adapterIsGone();
        }
    }
    if (m_sending->front() == PacketRing::Front::damaged) {
        noteMisuse("WintunSendPacket", "the ring is damaged");
        adapterIsGone();
    }
    m_flushing = false;
    if (m_ended) // only the end waits
        WakeAllConditionVariable(&m_flushed);
}

} // namespace ruvo::winehost
