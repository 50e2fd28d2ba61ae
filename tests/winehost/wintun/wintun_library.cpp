#include "wintun/wintun_library.h"

#include "namespace/bench_files.h"
#include "namespace/linux_command.h"

#include <bit>
#include <cstring>

namespace ruvo::test {

template<typename Function>
void WintunLibrary::resolve(Function &function, const char *name)
{
    function = std::bit_cast<Function>(GetProcAddress(m_module, name));
    if (!function)
        m_missing.emplace_back(name);
}

WintunLibrary::WintunLibrary()
    : m_module(LoadLibraryExW((programFolder() / L"tun2/wintun.dll").c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH))
{
    resolve(createAdapter, "WintunCreateAdapter");
    resolve(openAdapter, "WintunOpenAdapter");
    resolve(closeAdapter, "WintunCloseAdapter");
    resolve(deleteDriver, "WintunDeleteDriver");
    resolve(adapterLuid, "WintunGetAdapterLUID");
    resolve(driverVersion, "WintunGetRunningDriverVersion");
    resolve(setLogger, "WintunSetLogger");
    resolve(startSession, "WintunStartSession");
    resolve(endSession, "WintunEndSession");
    resolve(readWaitEvent, "WintunGetReadWaitEvent");
    resolve(receive, "WintunReceivePacket");
    resolve(release, "WintunReleaseReceivePacket");
    resolve(allocate, "WintunAllocateSendPacket");
    resolve(send, "WintunSendPacket");
}

WintunLibrary::~WintunLibrary()
{
    FreeLibrary(m_module);
}

void WintunTest::SetUp()
{
    ASSERT_EQ(m_wintun.missing(), std::vector<std::string>());
    clearBenchFolder();
}

void WintunSessionTest::SetUp()
{
    ASSERT_NO_FATAL_FAILURE(WintunTest::SetUp());
    m_adapter = m_wintun.createAdapter(L"test", L"Bench", &guid);
    ASSERT_TRUE(m_adapter) << GetLastError();
    ASSERT_EQ(linuxOutput("ip address add 10.9.0.1/24 dev test"), "");
    m_session = m_wintun.startSession(m_adapter, capacity);
    ASSERT_TRUE(m_session) << GetLastError();
}

void WintunSessionTest::TearDown()
{
    if (m_session)
        m_wintun.endSession(m_session);
    if (m_adapter)
        m_wintun.closeAdapter(m_adapter);
    EXPECT_EQ(linuxOutput("ip -o link show type tun"), "");
}

BYTE *WintunSessionTest::receiveWaiting(DWORD &size, DWORD timeoutMs)
{
    for (;;) {
        if (BYTE *packet = m_wintun.receive(m_session, &size))
            return packet;
        if (GetLastError() != ERROR_NO_MORE_ITEMS)
            return nullptr;
        if (WaitForSingleObject(m_wintun.readWaitEvent(m_session), timeoutMs) != WAIT_OBJECT_0)
            return nullptr;
    }
}

void WintunSessionTest::sendWhole(const std::vector<BYTE> &packet)
{
    for (;;) {
        if (BYTE *place = m_wintun.allocate(m_session, static_cast<DWORD>(packet.size()))) {
            std::memcpy(place, packet.data(), packet.size());
            m_wintun.send(m_session, place);
            return;
        }
        ASSERT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
        SwitchToThread();
    }
}

} // namespace ruvo::test
