// What the NAT path costs for one packet with 10, 1,000 and 60,000 connections: the table's look-ups alone, and the
// whole dispatch from the bytes of a packet to the rewritten copy. Packets of all connections take turns, as a table
// that is asked for the same one again and again would sit in the cache.

#include "common/log_category.h"
#include "nat/tcp_nat_table.h"
#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "packet/packet_rewrite.h"
#include "tun/packet_dispatcher.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

using namespace ruvo;

constexpr std::uint32_t tunnel = 0x0a060701;
constexpr std::uint16_t listenPort = 4444;

TcpEndpoints connectionOf(std::size_t number)
{
    const auto n = static_cast<std::uint32_t>(number);
    return {tunnel, static_cast<std::uint16_t>(1024 + n), 0xc6336400 + n % 200, 443};
}

FlowKey flowOf(const TcpEndpoints &connection)
{
    return {{connection.srcIp, connection.srcPort}, {connection.dstIp, connection.dstPort}};
}

/// A table with as many connections as the benchmark's argument says, and an order in which they take turns.
struct Connections
{
    explicit Connections(const benchmark::State &state)
    {
        const auto count = static_cast<std::size_t>(state.range(0));
        std::minstd_rand random(1);
        for (std::size_t number = 0; number < count; ++number) {
            const TcpEndpoints connection = connectionOf(number);
            const std::uint16_t natPort = table.allocateNatPort(flowOf(connection));
            if (!table.accept(natPort))
                std::abort();
            connections.push_back(connection);
            natPorts.push_back(natPort);
        }
        for (std::uint32_t &at : order)
            at = static_cast<std::uint32_t>(random() % count);
    }
    std::size_t next() { return order[++turn % order.size()]; }

    TcpNatTable table;
    std::vector<TcpEndpoints> connections;
    std::vector<std::uint16_t> natPorts;
    std::array<std::uint32_t, 65536> order{};
    std::size_t turn = 0;
};

void natFindByClient(benchmark::State &state)
{
    Connections all(state);
    for ([[maybe_unused]] auto iteration : state) {
        const TcpEndpoints &connection = all.connections[all.next()];
        benchmark::DoNotOptimize(all.table.findNatPort(flowOf(connection)));
    }
}

void natFindByPort(benchmark::State &state)
{
    Connections all(state);
    for ([[maybe_unused]] auto iteration : state)
        benchmark::DoNotOptimize(all.table.findByNatPort(all.natPorts[all.next()]));
}

/// A connection more, ended at once: what each new one costs.
void natOpenAndEnd(benchmark::State &state)
{
    Connections all(state);
    std::uint16_t port = 0;
    for ([[maybe_unused]] auto iteration : state) {
        const std::uint16_t natPort = all.table.allocateNatPort({{tunnel + 1, ++port}, {0x01010101, 80}});
        all.table.end(all.table.accept(natPort));
    }
}

/// A dispatcher as the tunnel has it; the adapter is a buffer.
struct Dispatch
{
    explicit Dispatch(const benchmark::State &state) : all(state), dispatcher(tunnel, paths()) {}

    PacketPaths paths()
    {
        PacketPaths result;
        result.tcpNat = TcpNatPath{
            .listenPort = listenPort,
            .findByNatPort = [this](std::uint16_t natPort) -> std::optional<TcpEndpoints> {
                const TcpNatSessionPtr session = all.table.findByNatPort(natPort);
                if (!session)
                    return std::nullopt;
                return TcpEndpoints{session->client().address, session->client().port, session->destination().address,
                                    session->destination().port};
            },
            .allocateNatPort = [](const TcpEndpoints &) { return std::uint16_t(0); },
            .findNatPort =
                [this](const TcpEndpoints &connection) { return all.table.findNatPort(flowOf(connection)); },
            .sendRewritten =
                [this](const ParsedPacket &packet, const TcpEndpoints &to) {
                    if (!isRewritableTcp(packet.raw, packet.rawLen))
                        return false;
                    std::memcpy(ring.data(), packet.raw, packet.rawLen);
                    rewriteTcpAddresses(ring.data(), packet.rawLen, to.srcIp, to.srcPort, to.dstIp, to.dstPort);
                    benchmark::ClobberMemory();
                    ++sent;
                    return true;
                },
        };
        return result;
    }

    void run(benchmark::State &state, const std::vector<PacketBytes> &packets)
    {
        for ([[maybe_unused]] auto iteration : state) {
            const PacketBytes &packet = packets[all.next()];
            dispatcher.dispatch(packet.data(), packet.size(), true);
        }
        if (sent != static_cast<std::uint64_t>(state.iterations()))
            state.SkipWithError("packets were dropped");
    }

    Connections all;
    std::array<std::uint8_t, 2048> ring{};
    std::uint64_t sent = 0;
    PacketDispatcher dispatcher;
};

/// 40 bytes, so that the copy of the payload does not hide the look-up.
PacketBytes acknowledgement(const TcpEndpoints &connection)
{
    return buildTcpPacket(connection.srcIp, connection.srcPort, connection.dstIp, connection.dstPort, 1, 2, tcpAck,
                          nullptr, 0);
}

void natDispatchToListener(benchmark::State &state)
{
    Dispatch dispatch(state);
    std::vector<PacketBytes> packets;
    for (const TcpEndpoints &connection : dispatch.all.connections)
        packets.push_back(acknowledgement(connection));
    dispatch.run(state, packets);
}

void natDispatchToClient(benchmark::State &state)
{
    Dispatch dispatch(state);
    std::vector<PacketBytes> packets;
    for (const std::uint16_t natPort : dispatch.all.natPorts)
        packets.push_back(acknowledgement({tunnel, listenPort, tunnel + 1, natPort}));
    dispatch.run(state, packets);
}

void sessionCounts(benchmark::internal::Benchmark *benchmark)
{
    benchmark->Arg(10)->Arg(1000)->Arg(60000);
}

BENCHMARK(natFindByClient)->Apply(sessionCounts);
BENCHMARK(natFindByPort)->Apply(sessionCounts);
BENCHMARK(natOpenAndEnd)->Apply(sessionCounts);
BENCHMARK(natDispatchToListener)->Apply(sessionCounts);
BENCHMARK(natDispatchToClient)->Apply(sessionCounts);

} // namespace

int main(int argc, char **argv)
{
    QLoggingCategory::setFilterRules("ruvod=false"); // the first packets of a process would be written
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
