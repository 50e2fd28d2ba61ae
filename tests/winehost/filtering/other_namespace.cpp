#include "filtering/other_namespace.h"

#include "kernel/system_call.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace ruvo::test {

namespace {

using winehost::Descriptor;
using winehost::systemCall;
using winehost::SystemCall;
using winehost::untilNotInterrupted;

Descriptor listener()
{
    constexpr int unixFamily = 1;   // AF_UNIX
    constexpr int streamSocket = 1; // SOCK_STREAM
    constexpr char name[] = "\0ruvod-filter-engine";
    struct
    {
        std::uint16_t family = unixFamily;
        char path[108] = {};
    } address;
    std::memcpy(address.path, name, sizeof name - 1);
    Descriptor made(systemCall(SystemCall::socket, unixFamily, streamSocket, 0));
    EXPECT_EQ(systemCall(SystemCall::bind, made.get(), &address, sizeof(std::uint16_t) + sizeof name - 1), 0);
    EXPECT_EQ(systemCall(SystemCall::listen, made.get(), 1), 0);
    return made;
}

void serve(Descriptor listening, int answers)
{
    const Descriptor client(untilNotInterrupted([&] { return systemCall(SystemCall::accept, listening.get()); }));
    listening.reset();
    for (; answers > 0; --answers) {
        char block[4096];
        for (char last = 0; last != '\n';) {
            const std::int64_t count =
                untilNotInterrupted([&] { return systemCall(SystemCall::read, client.get(), block, sizeof block); });
            ASSERT_GT(count, 0);
            last = block[count - 1];
        }
        constexpr std::string_view answer = "{\"error\": 0}\n";
        systemCall(SystemCall::write, client.get(), answer.data(), answer.size());
    }
}

} // namespace

void inOtherNamespace(const std::function<void()> &work)
{
    std::thread([&] {
        constexpr int networkOfItsOwn = 0x40000000; // CLONE_NEWNET
        ASSERT_EQ(systemCall(SystemCall::unshare, networkOfItsOwn), 0);
        work();
    }).join();
}

BriefEngine::BriefEngine(int answers) : m_thread(serve, listener(), answers) {}

BriefEngine::~BriefEngine()
{
    m_thread.join();
}

} // namespace ruvo::test
