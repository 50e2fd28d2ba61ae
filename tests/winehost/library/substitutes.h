#pragma once

// What the program calls in place of Windows' own functions; redirections.cpp says which for which.

#include <windows.h>
#include <winsvc.h>

namespace ruvo::winehost {

// service_calls.cpp
BOOL WINAPI setServiceStatus(SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status);
BOOL WINAPI setServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR descriptor);

// process_calls.cpp
BOOL WINAPI createProcess(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES process,
                          LPSECURITY_ATTRIBUTES thread, BOOL inherit, DWORD flags, LPVOID environment,
                          LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information);
BOOL WINAPI processIdToSessionId(DWORD pid, DWORD *session);

// console_calls.cpp
BOOL WINAPI generateConsoleCtrlEvent(DWORD event, DWORD group);

} // namespace ruvo::winehost
