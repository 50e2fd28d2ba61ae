#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace ruvo::winehost {

/// Packets in the order in which they came in, in memory that wraps around. A packet is held by the program until it
/// is finished; room gets free in the order of the packets, so one that is held keeps those behind it.
///
/// Each packet has a head before it and a guard behind it, so that a program that writes past the end is noticed.
/// Not locked.
class PacketRing
{
public:
    static constexpr DWORD largestPacket = 0xFFFF;

    /// Check isValid() first. `capacity`: a power of two.
    explicit PacketRing(DWORD capacity);
    PacketRing(const PacketRing &) = delete;
    PacketRing &operator=(const PacketRing &) = delete;

    bool isValid() const { return m_memory != nullptr; }
    bool hasRoomFor(DWORD size) const { return slotSize(size) <= m_capacity - (m_end - m_start); }
    bool isEmpty() const { return m_start == m_end; }

    /// Where the next packet is going to lie. As long as `hasRoomFor(n)`, n bytes may be written there.
    BYTE *nextPlace() const { return at(m_end) + sizeof(Head); }
    /// Adds a packet that is held; there has to be room.
    BYTE *push(DWORD size);

    enum class Finish {
        done,
        notHeld, ///< no packet of this ring, or one that was finished before
        overrun, ///< done, but bytes behind its end were changed
    };
    /// The program is done with a packet.
    Finish finish(const BYTE *packet);

    enum class Front { none, held, finished, damaged };
    Front front() const;
    BYTE *frontPacket() const { return at(m_start) + sizeof(Head); }
    DWORD frontSize() const { return headAt(m_start).size; }
    void popFront() { m_start += slotSize(headAt(m_start).size); }

private:
    struct Head
    {
        std::uint32_t size;
        std::uint32_t state;
    };
    struct Release
    {
        void operator()(BYTE *memory) const { VirtualFree(memory, 0, MEM_RELEASE); }
    };

    using Guard = std::uint32_t;
    static std::uint64_t slotSize(DWORD size)
    {
        return (sizeof(Head) + size + sizeof(Guard) + 7) & ~std::uint64_t{7};
    }
    BYTE *at(std::uint64_t position) const { return m_memory.get() + (position & (m_capacity - 1)); }
    Head &headAt(std::uint64_t position) const { return *reinterpret_cast<Head *>(at(position)); }

    /// A packet that starts before the end of the ring runs on behind it: there is room for the largest.
    const std::unique_ptr<BYTE, Release> m_memory;
    const std::uint64_t m_capacity;
    // They only grow; at() wraps them.
    std::uint64_t m_start = 0;
    std::uint64_t m_end = 0;
};

} // namespace ruvo::winehost
