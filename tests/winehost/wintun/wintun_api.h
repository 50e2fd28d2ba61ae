#pragma once

// The interface of wintun.dll as a program for Windows sees it, written from its published documentation.
// A function that fails returns null, FALSE or 0 and sets the last error.

#include <winsock2.h>
#include <ws2tcpip.h>

#include <iphlpapi.h>
#include <windows.h>

extern "C" {

struct WINTUN_ADAPTER;
struct WINTUN_SESSION;
using WINTUN_ADAPTER_HANDLE = WINTUN_ADAPTER *;
using WINTUN_SESSION_HANDLE = WINTUN_SESSION *;

constexpr DWORD WINTUN_MAX_ADAPTER_NAME = 128; // with its terminator
constexpr DWORD WINTUN_MIN_RING_CAPACITY = 0x20000;
constexpr DWORD WINTUN_MAX_RING_CAPACITY = 0x4000000;
constexpr DWORD WINTUN_MAX_IP_PACKET_SIZE = 0xFFFF;

enum WINTUN_LOGGER_LEVEL { WINTUN_LOG_INFO, WINTUN_LOG_WARN, WINTUN_LOG_ERR };

/// `timestamp`: 100 ns since 1601. May be called from any thread, by several at once.
using WINTUN_LOGGER_CALLBACK = VOID(CALLBACK *)(WINTUN_LOGGER_LEVEL level, DWORD64 timestamp, LPCWSTR message);

/// The adapter goes when its handle is closed, or when this process ends. ERROR_ALREADY_EXISTS: its name or its GUID
/// is in use.
WINTUN_ADAPTER_HANDLE WINAPI WintunCreateAdapter(LPCWSTR name, LPCWSTR tunnelType, const GUID *requestedGuid);
/// The adapter stays when its handle is closed. ERROR_NOT_FOUND: there is none of that name.
WINTUN_ADAPTER_HANDLE WINAPI WintunOpenAdapter(LPCWSTR name);
void WINAPI WintunCloseAdapter(WINTUN_ADAPTER_HANDLE adapter);
/// Takes the driver out of the system, unless an adapter is left.
BOOL WINAPI WintunDeleteDriver();
void WINAPI WintunGetAdapterLUID(WINTUN_ADAPTER_HANDLE adapter, NET_LUID *luid);
/// Major number in the high word, minor in the low one. ERROR_FILE_NOT_FOUND: the driver is not loaded.
DWORD WINAPI WintunGetRunningDriverVersion();
void WINAPI WintunSetLogger(WINTUN_LOGGER_CALLBACK logger);
/// `capacity` of each of both rings: a power of two from WINTUN_MIN_RING_CAPACITY to WINTUN_MAX_RING_CAPACITY.
WINTUN_SESSION_HANDLE WINAPI WintunStartSession(WINTUN_ADAPTER_HANDLE adapter, DWORD capacity);
void WINAPI WintunEndSession(WINTUN_SESSION_HANDLE session);
/// To be waited for when there was nothing to receive. Belongs to the session.
HANDLE WINAPI WintunGetReadWaitEvent(WINTUN_SESSION_HANDLE session);
/// Any thread. ERROR_NO_MORE_ITEMS: nothing there now; ERROR_HANDLE_EOF: the adapter goes away; ERROR_INVALID_DATA:
/// the ring is damaged. What was received has to be released, in any order.
BYTE *WINAPI WintunReceivePacket(WINTUN_SESSION_HANDLE session, DWORD *packetSize);
void WINAPI WintunReleaseReceivePacket(WINTUN_SESSION_HANDLE session, const BYTE *packet);
/// Any thread; packets go out in the order of these calls. ERROR_BUFFER_OVERFLOW: the ring is full; ERROR_HANDLE_EOF:
/// the adapter goes away.
BYTE *WINAPI WintunAllocateSendPacket(WINTUN_SESSION_HANDLE session, DWORD packetSize);
void WINAPI WintunSendPacket(WINTUN_SESSION_HANDLE session, const BYTE *packet);

} // extern "C"
