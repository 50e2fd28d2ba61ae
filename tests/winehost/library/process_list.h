#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace ruvo::winehost {

struct RunningProcess
{
    DWORD pid = 0;
    DWORD parent = 0;
    std::wstring name;
    unsigned long threads = 0;
    /// How many places its table of handles has: values of handles are multiples of four, up to four times as large.
    unsigned long handlePlaces = 0;
};

/// All that run, the youngest first (as far as ids tell); empty on failure.
std::vector<RunningProcess> runningProcesses();

/// Calls visit(HANDLE) with each value that a handle of the process can have, until that returns true.
///
/// NtQuerySystemInformation(64), the list of all handles, must not be called in its place: Wine's server crashes in
/// it while any process of the prefix has no handle yet, which is so for a moment whenever one is started.
template<typename Visit>
bool anyHandlePlace(const RunningProcess &process, Visit visit)
{
    for (ULONG_PTR place = 1; place <= process.handlePlaces; ++place) {
        if (visit(reinterpret_cast<HANDLE>(place * 4)))
            return true;
    }
    return false;
}

} // namespace ruvo::winehost
