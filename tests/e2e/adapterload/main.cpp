// adapterload LIBRARY in SECONDS            packets that arrive, counted from the first one on
// adapterload LIBRARY out SECONDS THREADS   packets that are sent, as fast as each thread can
//
// Creates the adapter "adapterload", says {"ready":true} and waits for a line of input; then counts, and prints what
// it counted as a JSON object.

#include "netcfg/wintun_adapter.h"
#include "packet/packet_builder.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t ringCapacity = 0x1000000;
constexpr std::uint32_t sender = 0x0A060702;      // 10.6.7.2
constexpr std::uint32_t destination = 0xCB007163; // 203.0.113.99: goes nowhere, and nobody answers
constexpr std::size_t payloadSize = 1400;

/// Parts of a counter that threads do not fight for.
struct alignas(64) Count
{
    std::atomic<std::uint64_t> packets = 0;
};

void report(std::uint64_t packets, double seconds)
{
    std::printf("{\"packets\":%llu,\"seconds\":%.3f}\n", static_cast<unsigned long long>(packets), seconds);
    std::fflush(stdout);
}

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool waitForInput()
{
    std::puts("{\"ready\":true}");
    std::fflush(stdout);
    return std::getchar() != EOF;
}

int measureIn(WintunAdapter &adapter, int seconds)
{
    std::atomic<std::uint64_t> packets = 0;
    adapter.setPacketCallback([&packets](const std::uint8_t *, std::uint32_t) {
        packets.store(packets.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); // one thread writes
    });
    adapter.startReading();
    if (!waitForInput())
        return 3;
    const auto called = Clock::now();
    while (packets == 0 && since(called) < 10)
        std::this_thread::yield();
    const std::uint64_t before = packets;
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    report(packets - before, since(start));
    adapter.stopReading();
    return 0;
}

int measureOut(WintunAdapter &adapter, int seconds, int threadCount)
{
    if (!waitForInput())
        return 3;
    const std::vector<std::uint8_t> payload(payloadSize);
    const auto packet = buildUdpPacket(sender, 9, destination, 9, payload.data(), payload.size());
    std::vector<Count> counts(static_cast<std::size_t>(threadCount));
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (Count &count : counts) {
        threads.emplace_back([&] {
            std::uint64_t sent = 0;
            // The clock is looked at now and then: it costs as much as a packet.
            for (unsigned attempt = 0; attempt % 64 != 0 || since(start) < seconds; ++attempt)
                sent += adapter.sendPacket(packet.data(), static_cast<std::uint32_t>(packet.size())) ? 1U : 0U;
            count.packets = sent;
        });
    }
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        sum += counts[i].packets;
    }
    report(sum, since(start));
    return 0;
}

int run(const std::wstring &library, std::string_view direction, int seconds, int threads)
{
    WintunAdapter adapter;
    if (!adapter.load(library) || !adapter.createAdapter(L"adapterload", L"SocksTunnel")
        || !adapter.startSession(ringCapacity)) {
        return 3;
    }
    const int status = direction == "in" ? measureIn(adapter, seconds) : measureOut(adapter, seconds, threads);
    adapter.endSession();
    return status;
}

} // namespace
} // namespace ruvo::test

int main(int argc, char **argv)
{
    const int seconds = argc >= 4 ? std::atoi(argv[3]) : 0;
    const int threads = argc >= 5 ? std::atoi(argv[4]) : 1;
    const std::string_view direction = argc >= 3 ? argv[2] : "";
    if (seconds < 1 || threads < 1 || (direction != "in" && direction != "out")) {
        std::fputs("usage: adapterload LIBRARY in SECONDS | out SECONDS THREADS\n", stderr);
        return 2;
    }
    return ruvo::test::run(QString::fromLocal8Bit(argv[1]).toStdWString(), direction, seconds, threads);
}
