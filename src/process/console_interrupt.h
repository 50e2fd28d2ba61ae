#pragma once

#include <windows.h>

namespace ruvo {

/// Sends Ctrl+C to every process of the console that `pid` has, by attaching the daemon to that console for a
/// moment. Takes about a second if the console is not there yet. False (and logged) if it cannot be delivered.
///
/// Changes the console of the whole process: main thread only, never nested. The daemon's standard handles are as
/// before when it returns.
bool sendCtrlCToConsoleOf(DWORD pid);

} // namespace ruvo
