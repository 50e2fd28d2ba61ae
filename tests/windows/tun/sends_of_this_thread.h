#pragma once

#include "netcfg/wintun_api.h"
#include "windows/support/import_redirection.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <vector>

namespace ruvo::test {

/// Counts the packets that the thread which made it sends into adapters: not what the tunnel's own threads send
/// meanwhile. It has to be there when wintun.dll is loaded. One at a time.
class SendsOfThisThread
{
public:
    SendsOfThisThread()
    {
        s_thread = GetCurrentThreadId();
        s_count = 0;
        s_last.clear();
    }
    int count() const { return s_count; }
    /// The last one of them, IPv4.
    const std::vector<std::uint8_t> &last() const { return s_last; }

private:
    static void WINAPI send(wintun::SessionHandle session, const BYTE *packet)
    {
        if (GetCurrentThreadId() == s_thread) {
            ++s_count;
            s_last.assign(packet, packet + (packet[2] << 8 | packet[3]));
        }
        s_real.load()(session, packet);
    }

    // They outlive the object, as the library's user keeps the function.
    inline static std::atomic<DWORD> s_thread = 0;
    inline static std::atomic<int> s_count = 0;
    inline static std::vector<std::uint8_t> s_last;
    inline static std::atomic<wintun::SendPacket> s_real = nullptr;

    const ImportRedirection<IMPORT(GetProcAddress)> m_lookUp{[this](HMODULE module, LPCSTR name) -> FARPROC {
        const FARPROC real = m_lookUp.real(module, name);
        // Names of low numbers are ordinals.
        if (reinterpret_cast<std::uintptr_t>(name) <= 0xFFFF || std::strcmp(name, "WintunSendPacket") != 0)
            return real;
        s_real = std::bit_cast<wintun::SendPacket>(real);
        return std::bit_cast<FARPROC>(&send);
    }};
};

} // namespace ruvo::test
