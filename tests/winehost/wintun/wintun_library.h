#pragma once

#include "wintun/wintun_api.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ruvo::test {

/// wintun.dll, loaded by its whole path as the product does.
class WintunLibrary
{
public:
    WintunLibrary();
    ~WintunLibrary();
    WintunLibrary(const WintunLibrary &) = delete;
    WintunLibrary &operator=(const WintunLibrary &) = delete;

    decltype(&WintunCreateAdapter) createAdapter = nullptr;
    decltype(&WintunOpenAdapter) openAdapter = nullptr;
    decltype(&WintunCloseAdapter) closeAdapter = nullptr;
    decltype(&WintunDeleteDriver) deleteDriver = nullptr;
    decltype(&WintunGetAdapterLUID) adapterLuid = nullptr;
    decltype(&WintunGetRunningDriverVersion) driverVersion = nullptr;
    decltype(&WintunSetLogger) setLogger = nullptr;
    decltype(&WintunStartSession) startSession = nullptr;
    decltype(&WintunEndSession) endSession = nullptr;
    decltype(&WintunGetReadWaitEvent) readWaitEvent = nullptr;
    decltype(&WintunReceivePacket) receive = nullptr;
    decltype(&WintunReleaseReceivePacket) release = nullptr;
    decltype(&WintunAllocateSendPacket) allocate = nullptr;
    decltype(&WintunSendPacket) send = nullptr;

    /// Functions that the library does not export.
    const std::vector<std::string> &missing() const { return m_missing; }

private:
    template<typename Function>
    void resolve(Function &function, const char *name);

    HMODULE m_module;
    std::vector<std::string> m_missing;
};

/// Tests that need the library. Journal and planned failures are forgotten before each of them.
class WintunTest : public ::testing::Test
{
protected:
    static constexpr GUID guid{0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
    static constexpr DWORD capacity = 0x400000;

    void SetUp() override;

    WintunLibrary m_wintun;
};

/// With an adapter "test" (10.9.0.1/24 at Linux's end) and a session on it.
class WintunSessionTest : public WintunTest
{
protected:
    static constexpr ULONG nearAddress = 0x0A090001;
    static constexpr ULONG farAddress = 0x0A090002;

    void SetUp() override;
    void TearDown() override;

    /// Waits until there is a packet, as a program does; null after a time-out or at the end of the session.
    BYTE *receiveWaiting(DWORD &size, DWORD timeoutMs = 5000);
    /// Copies `packet` into the ring and sends it, trying again while the ring is full.
    void sendWhole(const std::vector<BYTE> &packet);

    WINTUN_ADAPTER_HANDLE m_adapter = nullptr;
    WINTUN_SESSION_HANDLE m_session = nullptr;
};

} // namespace ruvo::test
