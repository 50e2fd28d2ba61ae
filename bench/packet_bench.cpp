// What the packet codec costs for one packet of 40, 576 and 1500 bytes. lwIP's checksum (package liblwip-dev) runs
// in the same process over the same bytes, so that its figures share the machine's mood.
//
// "bytes_per_cycle" counts cycles of the time-stamp counter, whose rate is fixed: a processor that runs faster or
// slower than that makes it larger or smaller.

#include "common/log_category.h"
#include "packet/packet_builder.h"
#include "packet/packet_checksum.h"
#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "packet/packet_rewrite.h"

#include <benchmark/benchmark.h>
#include <lwip/inet_chksum.h>

#include <x86intrin.h>

#include <cstdio>
#include <cstdlib>

namespace {

using namespace ruvo;

constexpr std::uint32_t client = 0x0a060701;
constexpr std::uint32_t server = 0xc6336407;

PacketBytes pattern(std::size_t size)
{
    PacketBytes bytes(size);
    std::uint32_t state = 1;
    for (std::uint8_t &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

PacketBytes tcpPacket(std::size_t size)
{
    const PacketBytes payload = pattern(size - 40);
    return buildTcpPacket(client, 40001, server, 443, 1, 2, tcpAck, payload.data(), payload.size());
}

PacketBytes udpPacket(std::size_t size)
{
    const PacketBytes payload = pattern(size - 28);
    return buildUdpPacket(client, 40001, server, 53, payload.data(), payload.size());
}

/// `operation` handles one packet of as many bytes as the benchmark's argument says.
template<typename Operation>
void measure(benchmark::State &state, Operation operation)
{
    const unsigned long long start = __rdtsc();
    for ([[maybe_unused]] auto iteration : state)
        benchmark::DoNotOptimize(operation());
    const auto cycles = static_cast<double>(__rdtsc() - start);
    const auto bytes = static_cast<double>(state.iterations() * state.range(0));
    state.counters["bytes_per_cycle"] = bytes / cycles;
}

std::size_t sizeOf(const benchmark::State &state)
{
    return static_cast<std::size_t>(state.range(0));
}

void parseTcp(benchmark::State &state)
{
    const PacketBytes packet = tcpPacket(sizeOf(state));
    measure(state, [&] { return parsePacket(packet.data(), packet.size()); });
}

void parseUdp(benchmark::State &state)
{
    const PacketBytes packet = udpPacket(sizeOf(state));
    measure(state, [&] { return parsePacket(packet.data(), packet.size()); });
}

void buildTcp(benchmark::State &state)
{
    const PacketBytes payload = pattern(sizeOf(state) - 40);
    measure(state,
            [&] { return buildTcpPacket(server, 443, client, 40001, 1, 2, tcpAck, payload.data(), payload.size()); });
}

void buildUdp(benchmark::State &state)
{
    const PacketBytes payload = pattern(sizeOf(state) - 28);
    measure(state, [&] { return buildUdpPacket(server, 53, client, 40001, payload.data(), payload.size()); });
}

void rewrite(benchmark::State &state)
{
    PacketBytes packet = tcpPacket(sizeOf(state));
    std::uint16_t port = 30000;
    measure(state,
            [&] { return rewriteTcpAddresses(packet.data(), packet.size(), client + 1, ++port, client, 51234); });
}

void checksumIp(benchmark::State &state)
{
    const PacketBytes bytes = pattern(sizeOf(state));
    measure(state, [&] { return ipChecksum(bytes.data(), bytes.size()); });
}

void checksumTcp(benchmark::State &state)
{
    const PacketBytes packet = tcpPacket(sizeOf(state));
    const std::uint8_t *const ip = packet.data();
    measure(state, [&] { return tcpChecksum(ip, ip + 20, ip + 40, packet.size() - 40, tcpHeaderSize); });
}

void checksumUdp(benchmark::State &state)
{
    const PacketBytes packet = udpPacket(sizeOf(state));
    const std::uint8_t *const ip = packet.data();
    measure(state, [&] { return udpChecksum(ip, ip + 20, ip + 28, packet.size() - 28); });
}

void checksumLwip(benchmark::State &state)
{
    const PacketBytes bytes = pattern(sizeOf(state));
    measure(state, [&] { return inet_chksum(bytes.data(), static_cast<u16_t>(bytes.size())); });
}

/// Two checksums that differ would not be worth comparing.
void requireSameChecksums()
{
    for (std::size_t size = 0; size <= 1600; ++size) {
        const PacketBytes bytes = pattern(size);
        if (ipChecksum(bytes.data(), size) != inet_chksum(bytes.data(), static_cast<u16_t>(size))) {
            std::fprintf(stderr, "the checksums of %zu bytes differ\n", size);
            std::exit(1);
        }
    }
}

void packetSizes(benchmark::internal::Benchmark *each)
{
    each->Arg(40)->Arg(576)->Arg(1500);
}

BENCHMARK(parseTcp)->Apply(packetSizes);
BENCHMARK(parseUdp)->Apply(packetSizes);
BENCHMARK(buildTcp)->Apply(packetSizes);
BENCHMARK(buildUdp)->Apply(packetSizes);
BENCHMARK(rewrite)->Apply(packetSizes);
BENCHMARK(checksumIp)->Apply(packetSizes);
BENCHMARK(checksumTcp)->Apply(packetSizes);
BENCHMARK(checksumUdp)->Apply(packetSizes);
BENCHMARK(checksumLwip)->Apply(packetSizes);

} // namespace

int main(int argc, char **argv)
{
    QLoggingCategory::setFilterRules("ruvod=false"); // the first packets of a process would be written
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    requireSameChecksums();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
