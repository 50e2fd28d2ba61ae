#pragma once

#include "common/winsock_headers.h"

#include <mswsock.h>

#include <atomic>

namespace ruvo {

/// A function that Winsock does not export: asked from `socket`'s provider once and kept for the process. Null if
/// there is none (WSAGetLastError()). Any thread.
template<typename Function>
Function winsockExtension(SOCKET socket, GUID id)
{
    static std::atomic<Function> s_known = nullptr;
    if (const Function known = s_known)
        return known;
    Function found = nullptr;
    DWORD size = 0;
    if (WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &found, sizeof(found), &size, nullptr,
                 nullptr)
        != 0) {
        return nullptr;
    }
    s_known = found;
    return found;
}

inline LPFN_CONNECTEX connectExPointer(SOCKET socket)
{
    return winsockExtension<LPFN_CONNECTEX>(socket, WSAID_CONNECTEX);
}

inline LPFN_ACCEPTEX acceptExPointer(SOCKET socket)
{
    return winsockExtension<LPFN_ACCEPTEX>(socket, WSAID_ACCEPTEX);
}

inline LPFN_GETACCEPTEXSOCKADDRS acceptExAddressesPointer(SOCKET socket)
{
    return winsockExtension<LPFN_GETACCEPTEXSOCKADDRS>(socket, WSAID_GETACCEPTEXSOCKADDRS);
}

} // namespace ruvo
