// The library as a long-lived program uses it: loaded and freed with each tunnel.

#include "kernel/system_call.h"
#include "namespace/linux_command.h"
#include "windows/support/own_resources.h"
#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

namespace ruvo::test {

namespace {

/// Descriptors of the kinds that the library opens; those of Wine come and go, also while they are listed.
int openDescriptors()
{
    const auto pid = winehost::systemCall(winehost::SystemCall::processId, 0);
    return std::stoi(
        linuxOutput("ls -l /proc/" + std::to_string(pid) + "/fd 2>/dev/null | grep 'net/tun\\|event' | wc -l"));
}

void runTunnel(const std::function<void()> &whileItRuns = [] {})
{
    const WintunLibrary wintun;
    const auto adapter = wintun.createAdapter(L"test", L"Bench", nullptr);
    ASSERT_TRUE(adapter) << GetLastError();
    const auto session = wintun.startSession(adapter, 0x20000);
    ASSERT_TRUE(session) << GetLastError();
    DWORD size = 0;
    EXPECT_EQ(wintun.receive(session, &size), nullptr);
    const auto packet = udpPacket(0x0A090002, 0x0A0900FF, {4000, 4000}, "hello");
    BYTE *place = wintun.allocate(session, static_cast<DWORD>(packet.size()));
    ASSERT_TRUE(place);
    std::memcpy(place, packet.data(), packet.size());
    wintun.send(session, place);
    whileItRuns();
    wintun.endSession(session);
    wintun.closeAdapter(adapter);
}

} // namespace

TEST(WintunLifetime, leavesNothingBehindWhenTheLibraryIsFreed)
{
    constexpr int cycles = 40;
    runTunnel(); // what is made once stays
    const int descriptorsBefore = openDescriptors();
    // The adapter's, the session's, and three to wait with.
    ASSERT_NO_FATAL_FAILURE(runTunnel([&] { EXPECT_EQ(openDescriptors(), descriptorsBefore + 5); }));
    const OwnResources before = OwnResources::now();
    for (int i = 0; i < cycles; ++i) {
        ASSERT_NO_FATAL_FAILURE(runTunnel());
        ASSERT_EQ(GetModuleHandleW(L"wintun.dll"), nullptr);
    }
    const OwnResources after = OwnResources::now();
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    EXPECT_EQ(after.handles, before.handles);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_LT(after.workingSet, before.workingSet + 1024 * 1024);
    std::printf("before: %s\nafter %d tunnels: %s\n", before.text().c_str(), cycles, after.text().c_str());
}

} // namespace ruvo::test
