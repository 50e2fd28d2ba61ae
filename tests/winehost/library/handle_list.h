#pragma once

#include <windows.h>

#include <vector>

namespace ruvo::winehost {

struct OpenHandle
{
    DWORD process;
    HANDLE value;
};

/// The handles of all processes, by process, the youngest first (as far as ids tell).
std::vector<OpenHandle> openHandles();

} // namespace ruvo::winehost
