#include "wintun/packet_ring.h"

#include <cstring>

namespace ruvo::winehost {

namespace {

// Values that no size and no text of a packet is likely to be.
constexpr std::uint32_t heldMark = 0xA5C3F00D;
constexpr std::uint32_t finishedMark = 0x5A3C0FF2;
constexpr std::uint32_t guardMark = 0xC0DE9E7D;

BYTE *allocate(SIZE_T size)
{
    return static_cast<BYTE *>(VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

} // namespace

PacketRing::PacketRing(DWORD capacity) : m_memory(allocate(capacity + slotSize(largestPacket))), m_capacity(capacity)
{}

BYTE *PacketRing::push(DWORD size)
{
    headAt(m_end) = {size, heldMark};
    BYTE *packet = nextPlace();
    std::memcpy(packet + size, &guardMark, sizeof(Guard));
    m_end += slotSize(size);
    return packet;
}

PacketRing::Finish PacketRing::finish(const BYTE *packet)
{
    const std::ptrdiff_t offset = packet - m_memory.get() - static_cast<std::ptrdiff_t>(sizeof(Head));
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= m_capacity || offset % 8 != 0)
        return Finish::notHeld;
    const std::uint64_t behindStart = (static_cast<std::uint64_t>(offset) - m_start) & (m_capacity - 1);
    if (behindStart >= m_end - m_start)
        return Finish::notHeld;
    Head &head = headAt(static_cast<std::uint64_t>(offset));
    if (head.state != heldMark)
        return Finish::notHeld;
    head.state = finishedMark;
    Guard guard;
    std::memcpy(&guard, packet + head.size, sizeof guard);
    return guard == guardMark ? Finish::done : Finish::overrun;
}

PacketRing::Front PacketRing::front() const
{
    if (isEmpty())
        return Front::none;
    const Head &head = headAt(m_start);
    if (head.size > largestPacket || slotSize(head.size) > m_end - m_start)
        return Front::damaged;
    switch (head.state) {
    case heldMark: return Front::held;
    case finishedMark: return Front::finished;
    default: return Front::damaged;
    }
}

} // namespace ruvo::winehost
