// Appending to a file. Windows does it in one step; Wine looks where the end is and writes there, so that what two
// threads append at once may overwrite each other.

#include "lock.h"
#include "substitutes.h"

#include <mutex>

namespace ruvo::winehost {

namespace {

Lock s_appending;

} // namespace

BOOL WINAPI writeFile(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped)
{
    if (overlapped || GetFileType(file) != FILE_TYPE_DISK)
        return WriteFile(file, data, size, written, overlapped);
    const std::lock_guard lock(s_appending);
    return WriteFile(file, data, size, written, overlapped);
}

} // namespace ruvo::winehost
