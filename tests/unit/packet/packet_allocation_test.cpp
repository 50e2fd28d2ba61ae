// Counts what a thread allocates, by replacing the allocation functions of this whole program.

#include "packet/packet_builder.h"
#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "packet/packet_rewrite.h"
#include "support/log_capture.h"
#include "unit/packet/packet_reference.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t s_allocations = 0;

void *allocate(std::size_t size) noexcept
{
    ++s_allocations;
    return std::malloc(size == 0 ? 1 : size);
}

} // namespace

// None of them is inlined: the compiler would see malloc meet an operator delete, or free an operator new, and warn.

[[gnu::noinline]] void *operator new(std::size_t size)
{
    if (void *memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return allocate(size);
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, const std::nothrow_t &) noexcept
{
    std::free(memory);
}

namespace ruvo {
namespace {

using namespace test;

template<typename Action>
std::size_t allocationsOf(Action action)
{
    const std::size_t before = s_allocations;
    action();
    return s_allocations - before;
}

PacketBytes buildTcp(std::uint8_t flags, const Bytes &payload)
{
    return buildTcpPacket(1, 2, 3, 4, 5, 6, flags, payload.data(), payload.size());
}

class PacketAllocations : public ::testing::Test
{
protected:
    PacketAllocations()
    {
        // The first packets of a process are written to the log, which does allocate.
        for (int i = 0; i < 20; ++i) {
            buildTcp(tcpAck, {});
            buildTcp(tcpSyn | tcpAck, {});
        }
        m_log.clear();
    }

    LogCapture m_log;
    PacketBytes m_packet;
};

TEST_F(PacketAllocations, areCountedAtAll)
{
    EXPECT_EQ(allocationsOf([this] { m_packet = PacketBytes(10); }), 1U);
}

TEST_F(PacketAllocations, areOneOfExactlyThePacketsSizeInTheTcpBuilder)
{
    for (const std::uint8_t flags : Bytes{0x02, 0x10, 0x12, 0x18}) {
        for (const std::size_t size : {0U, 1U, 536U, 1460U, 9000U}) {
            const Bytes payload(size);
            EXPECT_EQ(allocationsOf([&] { m_packet = buildTcp(flags, payload); }), 1U);
            EXPECT_EQ(m_packet.capacity(), m_packet.size());
        }
    }
}

TEST_F(PacketAllocations, areOneOfExactlyThePacketsSizeInTheUdpBuilder)
{
    for (const std::size_t size : {0U, 1U, 536U, 1460U, 65507U}) {
        const Bytes payload(size);
        EXPECT_EQ(allocationsOf([&] { m_packet = buildUdpPacket(1, 2, 3, 4, payload.data(), size); }), 1U);
        EXPECT_EQ(m_packet.capacity(), m_packet.size());
    }
}

TEST_F(PacketAllocations, areNoneForAPacketThatDoesNotFit)
{
    const Bytes payload(65508);
    EXPECT_EQ(allocationsOf([&] { m_packet = buildUdpPacket(1, 2, 3, 4, payload.data(), payload.size()); }), 0U);
}

TEST_F(PacketAllocations, areNoneInParserRewritingAndChecksums)
{
    Bytes tcp = referenceTcpPacket({}, 1, 2, 0x18, {}, patternBytes(1460), 3);
    const Bytes udp = referenceUdpPacket({}, patternBytes(1460), 3);
    std::uint32_t used = 0;
    const std::size_t allocations = allocationsOf([&] {
        used += parsePacket(tcp.data(), tcp.size()).srcPort;
        used += parsePacket(udp.data(), udp.size()).srcPort;
        used += rewriteTcpAddresses(tcp.data(), tcp.size(), 1, 2, 3, 4);
        used += ipChecksum(tcp.data(), 20);
        used += tcpChecksum(tcp.data(), tcp.data() + 20, tcp.data() + 40, 1460, 20);
        used += udpChecksum(udp.data(), udp.data() + 20, udp.data() + 28, 1460);
    });
    EXPECT_EQ(allocations, 0U);
    EXPECT_NE(used, 0U);
}

} // namespace
} // namespace ruvo
