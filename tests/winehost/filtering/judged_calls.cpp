// What the program sends, judged by the filters first.

#include "filtering/bound_sockets.h"
#include "filtering/judge.h"
#include "library/journal.h"
#include "library/substitutes.h"
#include "netconfig/socket_descriptor.h"
#include "netconfig/socket_owners.h"

#include <mswsock.h>

#include <atomic>
#include <cstring>

namespace ruvo::winehost {

namespace {

std::atomic<LPFN_CONNECTEX> s_connectEx = nullptr;

bool passes(const char *call, const std::optional<SocketFacts> &facts, const sockaddr *remote, int size)
{
    if (!facts || passesFilters(*facts, remote, size))
        return true;
    if (const auto flow = flowTo(remote, size)) {
        JournalEntry(call)
            .add("blocked", true)
            .add("remote", std::string_view(addressText(flow->remote, flow->isIpv6)))
            .add("port", flow->port);
    }
    WSASetLastError(WSAEACCES);
    return false;
}

/// Of a socket that is to be connected; it becomes one of this program's too.
std::optional<SocketFacts> noteSocket(SOCKET socket)
{
    const Descriptor descriptor = descriptorOf(reinterpret_cast<HANDLE>(socket));
    noteOwnSocket(descriptor);
    return factsOf(descriptor);
}

bool datagramPasses(SOCKET socket, const sockaddr *remote, int size)
{
    const auto facts = boundSocket(socket);
    if (facts ? passesFilters(*facts, remote, size) : sendingPasses(socket, remote, size))
        return true;
    WSASetLastError(WSAEACCES);
    return false;
}

BOOL PASCAL connectSocketEx(SOCKET socket, const sockaddr *remote, int size, PVOID data, DWORD dataSize, LPDWORD sent,
                            LPOVERLAPPED overlapped)
{
    auto facts = boundSocket(socket);
    if (!facts)
        facts = factsOf(descriptorOf(reinterpret_cast<HANDLE>(socket)));
    return passes("ConnectEx", facts, remote, size)
           && s_connectEx.load()(socket, remote, size, data, dataSize, sent, overlapped);
}

} // namespace

int WINAPI connectSocket(SOCKET socket, const sockaddr *remote, int size)
{
    return passes("connect", noteSocket(socket), remote, size) ? connect(socket, remote, size) : SOCKET_ERROR;
}

int WINAPI connectSocketByProvider(SOCKET socket, const sockaddr *remote, int size, LPWSABUF callerData,
                                   LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos)
{
    return passes("WSAConnect", noteSocket(socket), remote, size)
               ? WSAConnect(socket, remote, size, callerData, calleeData, socketQos, groupQos)
               : SOCKET_ERROR;
}

int WINAPI sendDatagram(SOCKET socket, const char *data, int dataSize, int flags, const sockaddr *remote, int size)
{
    return datagramPasses(socket, remote, size) ? sendto(socket, data, dataSize, flags, remote, size) : SOCKET_ERROR;
}

int WINAPI sendDatagramParts(SOCKET socket, LPWSABUF parts, DWORD count, LPDWORD sent, DWORD flags,
                             const sockaddr *remote, int size, LPWSAOVERLAPPED overlapped,
                             LPWSAOVERLAPPED_COMPLETION_ROUTINE routine)
{
    return datagramPasses(socket, remote, size)
               ? WSASendTo(socket, parts, count, sent, flags, remote, size, overlapped, routine)
               : SOCKET_ERROR;
}

int WINAPI controlSocket(SOCKET socket, DWORD code, LPVOID input, DWORD inputSize, LPVOID output, DWORD outputSize,
                         LPDWORD returned, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine)
{
    const int result = WSAIoctl(socket, code, input, inputSize, output, outputSize, returned, overlapped, routine);
    const GUID connectEx = WSAID_CONNECTEX;
    if (result != 0 || code != SIO_GET_EXTENSION_FUNCTION_POINTER || inputSize != sizeof connectEx
        || std::memcmp(input, &connectEx, sizeof connectEx) != 0) {
        return result;
    }
    LPFN_CONNECTEX function = nullptr;
    std::memcpy(&function, output, sizeof function);
    s_connectEx = function;
    function = connectSocketEx;
    std::memcpy(output, &function, sizeof function);
    return result;
}

} // namespace ruvo::winehost
