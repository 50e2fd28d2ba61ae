#pragma once

#include <windows.h>

#include <expected>

namespace ruvo::winehost {

/// The session of a process as Windows would have it: this program, its ancestors (the service manager) and what
/// it started are in session 0; others in the one that `process-sessions.txt` names ("PID SESSION" a line), or
/// in session 1. Error 87 for an id that no process has.
std::expected<DWORD, DWORD> sessionOfProcess(DWORD pid);

} // namespace ruvo::winehost
