#pragma once

// What the program calls in place of Windows' own functions; redirections.cpp says which for which.

#include "common/winsock_headers.h"

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

// file_calls.cpp
BOOL WINAPI writeFile(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped);

// passed_calls.cpp
LSTATUS WINAPI regOpenKeyEx(HKEY key, LPCWSTR path, DWORD options, REGSAM access, HKEY *result);
LSTATUS WINAPI regSetValueExA(HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE *data, DWORD size);
HANDLE WINAPI createIoCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads);
FARPROC WINAPI getProcAddress(HMODULE library, LPCSTR name);

// netconfig/socket_calls.cpp
int WINAPI setSocketOption(SOCKET socket, int level, int option, const char *value, int size);
int WINAPI bindSocket(SOCKET socket, const sockaddr *address, int size);
SOCKET WINAPI openSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW information, GROUP group,
                         DWORD flags);
int WINAPI listenOnSocket(SOCKET socket, int backlog);
/// createIoCompletionPort with a port that is there.
HANDLE associateSocket(HANDLE socket, HANDLE port, ULONG_PTR key, DWORD threads);

// filtering/judged_calls.cpp
int WINAPI connectSocket(SOCKET socket, const sockaddr *remote, int size);
int WINAPI connectSocketByProvider(SOCKET socket, const sockaddr *remote, int size, LPWSABUF callerData,
                                   LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos);
int WINAPI sendDatagram(SOCKET socket, const char *data, int dataSize, int flags, const sockaddr *remote, int size);
int WINAPI sendDatagramParts(SOCKET socket, LPWSABUF parts, DWORD count, LPDWORD sent, DWORD flags,
                             const sockaddr *remote, int size, LPWSAOVERLAPPED overlapped,
                             LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WINAPI controlSocket(SOCKET socket, DWORD code, LPVOID input, DWORD inputSize, LPVOID output, DWORD outputSize,
                         LPDWORD returned, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

// firewall/com_calls.cpp
HRESULT WINAPI coInitializeEx(LPVOID reserved, DWORD model);
void WINAPI coUninitialize();
HRESULT WINAPI coCreateInstance(REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId, LPVOID *object);

// netconfig/owner_process_calls.cpp
HANDLE WINAPI openProcess(DWORD access, BOOL inherit, DWORD process);
BOOL WINAPI queryFullProcessImageName(HANDLE handle, DWORD flags, LPWSTR buffer, DWORD *size);
BOOL WINAPI closeHandle(HANDLE handle);

// console_calls.cpp
BOOL WINAPI generateConsoleCtrlEvent(DWORD event, DWORD group);

} // namespace ruvo::winehost
