#pragma once

// The part of Wintun's published interface that is called here, declared anew: the library is loaded at run time.

#include "common/winsock_headers.h"

#include <netioapi.h>

namespace ruvo::wintun {

struct Adapter; // WINTUN_ADAPTER_HANDLE points to it
struct Session; // WINTUN_SESSION_HANDLE points to it
using AdapterHandle = Adapter *;
using SessionHandle = Session *;

using CreateAdapter = AdapterHandle(WINAPI *)(LPCWSTR name, LPCWSTR tunnelType, const GUID *requestedGuid);
using CloseAdapter = void(WINAPI *)(AdapterHandle adapter);
using OpenAdapter = AdapterHandle(WINAPI *)(LPCWSTR name);
using GetAdapterLuid = void(WINAPI *)(AdapterHandle adapter, NET_LUID *luid);
using GetRunningDriverVersion = DWORD(WINAPI *)();
using StartSession = SessionHandle(WINAPI *)(AdapterHandle adapter, DWORD capacity);
using EndSession = void(WINAPI *)(SessionHandle session);
using GetReadWaitEvent = HANDLE(WINAPI *)(SessionHandle session);
using ReceivePacket = BYTE *(WINAPI *)(SessionHandle session, DWORD *size);
using ReleaseReceivePacket = void(WINAPI *)(SessionHandle session, const BYTE *packet);
using AllocateSendPacket = BYTE *(WINAPI *)(SessionHandle session, DWORD size);
using SendPacket = void(WINAPI *)(SessionHandle session, const BYTE *packet);

} // namespace ruvo::wintun
