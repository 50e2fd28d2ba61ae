// A socket that is told which interface to leave through: Linux takes the option and ignores it for TCP, so the
// socket would go where the routes lead, into the tunnel that it is to go around. And the program's sockets as the
// tables of owners have to know them, before their first packet shows them to anybody.

#include "filtering/bound_sockets.h"
#include "kernel/links.h"
#include "kernel/system_call.h"
#include "library/faults.h"
#include "library/journal.h"
#include "library/substitutes.h"
#include "netconfig/socket_descriptor.h"
#include "netconfig/socket_owners.h"

#include "common/winsock_headers.h"

#include <ws2tcpip.h>

#include <cstring>

namespace ruvo::winehost {

namespace {

int bindToDevice(const Descriptor &descriptor, const Link &link)
{
    constexpr int socketLevel = 1;         // SOL_SOCKET
    constexpr int bindToDeviceOption = 25; // SO_BINDTODEVICE
    if (!descriptor)
        return linux_error::invalid;
    return static_cast<int>(-systemCall(SystemCall::setSocketOption, descriptor.get(), socketLevel,
                                        bindToDeviceOption, link.name.c_str(), link.name.size() + 1));
}

} // namespace

int WINAPI setSocketOption(SOCKET socket, int level, int option, const char *value, int size)
{
    const int result = setsockopt(socket, level, option, value, size);
    DWORD index = 0;
    if (result != 0 || level != IPPROTO_IP || option != IP_UNICAST_IF || size != sizeof index)
        return result;
    std::memcpy(&index, value, sizeof index);
    index = ntohl(index);
    JournalEntry entry("setsockopt");
    entry.add("unicast-interface", index);
    const auto link = linkByIndex(index);
    const Descriptor descriptor = descriptorOf(reinterpret_cast<HANDLE>(socket));
    const int error = link ? bindToDevice(descriptor, *link) : linux_error::noDevice;
    noteBoundSocket(socket, descriptor);
    entry.add("result", error == 0);
    if (error != 0)
        entry.add("linux-error", error);
    return result;
}

SOCKET WINAPI openSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW information, GROUP group,
                         DWORD flags)
{
    if (const auto error = plannedFault("WSASocketW")) {
        WSASetLastError(static_cast<int>(*error));
        return INVALID_SOCKET;
    }
    const SOCKET made = WSASocketW(family, type, protocol, information, group, flags);
    forgetBoundSocket(made);
    return made;
}

int WINAPI listenOnSocket(SOCKET socket, int backlog)
{
    if (const auto error = plannedFault("listen")) {
        WSASetLastError(static_cast<int>(*error));
        return SOCKET_ERROR;
    }
    return listen(socket, backlog);
}

HANDLE associateSocket(HANDLE socket, HANDLE port, ULONG_PTR key, DWORD threads)
{
    if (const auto error = plannedFault("CreateIoCompletionPort:associate")) {
        SetLastError(*error);
        return nullptr;
    }
    return CreateIoCompletionPort(socket, port, key, threads);
}

int WINAPI bindSocket(SOCKET socket, const sockaddr *address, int size)
{
    if (const auto error = plannedFault("bind")) {
        WSASetLastError(static_cast<int>(*error));
        return SOCKET_ERROR;
    }
    const Descriptor descriptor = descriptorOf(reinterpret_cast<HANDLE>(socket));
    noteOwnSocket(descriptor);
    const int result = bind(socket, address, size);
    if (result == 0)
        noteBoundSocket(socket, descriptor);
    return result;
}

} // namespace ruvo::winehost
