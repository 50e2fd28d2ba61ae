#include "probe.h"

#include "library/json_line.h"

#include <windows.h>

#include <cstdio>

namespace ruvo::winehost {

// Waiting for an instance asks for the pipe without connecting: a connection would be a client to the server.
int lookAtPipe(const Arguments &arguments)
{
    const std::wstring path = L"\\\\.\\pipe\\" + arguments[0];
    const bool isFree = WaitNamedPipeW(path.c_str(), 1);
    const DWORD error = isFree ? 0 : GetLastError();
    JsonLine line;
    line.add("exists", isFree || error == ERROR_SEM_TIMEOUT).add("free", isFree).add("error", error);
    std::puts(line.text().c_str());
    return isFree || error == ERROR_SEM_TIMEOUT || error == ERROR_FILE_NOT_FOUND ? 0 : 1;
}

} // namespace ruvo::winehost
