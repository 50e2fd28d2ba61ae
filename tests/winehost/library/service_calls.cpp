// What the program tells the service manager, for the journal.

#include "journal.h"
#include "substitutes.h"

#include "common/windows_handles.h"

#include <sddl.h>

namespace ruvo::winehost {

BOOL WINAPI setServiceStatus(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status)
{
    JournalEntry entry("SetServiceStatus");
    entry.add("type", status->dwServiceType)
        .add("state", status->dwCurrentState)
        .add("controls", status->dwControlsAccepted)
        .add("exit-code", status->dwWin32ExitCode)
        .add("check-point", status->dwCheckPoint)
        .add("wait-hint", status->dwWaitHint);
    const BOOL done = SetServiceStatus(handle, status);
    entry.addResult(done);
    return done;
}

// Wine keeps no access lists of services: what the program hands over is all that can be looked at.
BOOL WINAPI setServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR descriptor)
{
    JournalEntry entry("SetServiceObjectSecurity");
    LPWSTR text = nullptr;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, what, &text, nullptr)) {
        const LocalMemory owned(text);
        entry.add("what", what).add("sddl", text);
    } else {
        entry.add("what", what).add("sddl-error", GetLastError());
    }
    const BOOL done = SetServiceObjectSecurity(service, what, descriptor);
    entry.addResult(done);
    return done;
}

} // namespace ruvo::winehost
