#pragma once

#include "common/windows_handles.h"
#include "netcfg/wintun_api.h"

#include <string>

namespace ruvo {

/// wintun.dll and its entry points. Immutable once loaded; the functions may be called from any thread.
class WintunLibrary
{
public:
    /// Loads the library (its own dependencies are looked for beside it) and finds every entry point. False and
    /// logged on failure.
    bool load(const std::wstring &path);
    bool isLoaded() const { return m_complete; }

    wintun::CreateAdapter createAdapter = nullptr;
    wintun::CloseAdapter closeAdapter = nullptr;
    wintun::OpenAdapter openAdapter = nullptr;
    wintun::GetAdapterLuid getAdapterLuid = nullptr;
    wintun::GetRunningDriverVersion getRunningDriverVersion = nullptr;
    FARPROC deleteDriver = nullptr; // required to be there, never called
    FARPROC setLogger = nullptr;    // required to be there, never called
    wintun::StartSession startSession = nullptr;
    wintun::EndSession endSession = nullptr;
    wintun::GetReadWaitEvent getReadWaitEvent = nullptr;
    wintun::ReceivePacket receivePacket = nullptr;
    wintun::ReleaseReceivePacket releaseReceivePacket = nullptr;
    wintun::AllocateSendPacket allocateSendPacket = nullptr;
    wintun::SendPacket sendPacket = nullptr;

private:
    Library m_module;
    bool m_complete = false;
};

} // namespace ruvo
