#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <expected>
#include <string>
#include <vector>

namespace ruvo::winehost {

/// One line of `sessions.txt`: number, state, and the user's name if one is logged on.
struct Session
{
    DWORD id = 0;
    WTS_CONNECTSTATE_CLASS state = WTSDisconnected;
    std::wstring user;
    /// Not 0: asking for the user's name fails with this error ("!5" in place of the name).
    DWORD nameError = 0;
};

/// The sessions as `sessions.txt` lists them now, or the Windows error that listing them has to fail with: the
/// one of a line "fail 5", or 13 (invalid data) for a file that cannot be understood.
std::expected<std::vector<Session>, DWORD> readSessions();

} // namespace ruvo::winehost
