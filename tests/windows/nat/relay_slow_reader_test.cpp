// Readers that are slow but never stop: as many as would hold every worker twice over.

#include "windows/nat/relay_session_fixture.h"

#include <chrono>
#include <future>
#include <stop_token>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class RelaySlowReaderTest : public RelaySessionTest
{
protected:
    static constexpr int sip = 4096;
    static constexpr DWORD sipInterval = 50; // ms

    /// Sends without end.
    static void pour(const std::stop_token &stop, SOCKET socket)
    {
        const QByteArray bytes = pattern(0x10000);
        while (!stop.stop_requested() && send(socket, bytes.constData(), static_cast<int>(bytes.size()), 0) > 0) {}
    }
    /// Reads a little now and then.
    static void drinkSlowly(const std::stop_token &stop, SOCKET socket)
    {
        char bytes[sip];
        while (!stop.stop_requested() && recv(socket, bytes, sip, 0) > 0)
            Sleep(sipInterval);
    }
    /// Once all buffers on the way are full, nothing moves between two sips.
    static bool isHeldUp(const RelaySession &relay)
    {
        const std::uint64_t before = relay.bytesToClient();
        Sleep(sipInterval / 2);
        return before > 0 && relay.bytesToClient() == before;
    }
};

TEST_F(RelaySlowReaderTest, holdUpNobodyElse)
{
    std::vector<Ends> slow;
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < 2 * workerCount; ++i) {
        slow.push_back(start());
        threads.emplace_back(pour, slow.back().server.get());
        threads.emplace_back(drinkSlowly, slow.back().application.get());
    }
    for (const Ends &ends : slow)
        ASSERT_TRUE(waitUntil([&] { return isHeldUp(*ends.relay); }));

    const Ends live = start();
    const QByteArray bytes = pattern(20'000'000);
    auto sender = std::async(std::launch::async, [&] { return sendAll(live.server.get(), bytes); });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(receiveBytes(live.application.get(), bytes.size()) == bytes);
    EXPECT_TRUE(sender.get());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);

    for (Ends &ends : slow) {
        EXPECT_GT(ends.relay->bytesToClient(), 0u);
        ends.relay->abort();
        ends.relay.reset(); // closes the sockets, which ends both threads
    }
}

} // namespace
} // namespace ruvo::test
