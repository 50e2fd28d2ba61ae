// A socket that is told which interface to leave through. Linux takes the option and ignores it for TCP: the socket
// would go where the routes lead, into the tunnel that it is to go around.

#include "kernel/links.h"
#include "kernel/system_call.h"
#include "library/journal.h"
#include "library/substitutes.h"

#include "common/winsock_headers.h"

#include <ws2tcpip.h>

#include <bit>
#include <cstring>

namespace ruvo::winehost {

namespace {

/// The Linux descriptor behind a socket, to be closed by the caller. An export of Wine's ntdll.
Descriptor descriptorOf(SOCKET socket)
{
    using Function = LONG(CDECL *)(HANDLE handle, unsigned access, int *descriptor, unsigned *options);
    static const auto function = std::bit_cast<Function>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_server_handle_to_fd"));
    int descriptor = -1;
    if (!function || function(reinterpret_cast<HANDLE>(socket), FILE_READ_DATA, &descriptor, nullptr) != 0)
        return {};
    return Descriptor(descriptor);
}

int bindToDevice(SOCKET socket, const Link &link)
{
    constexpr int socketLevel = 1;         // SOL_SOCKET
    constexpr int bindToDeviceOption = 25; // SO_BINDTODEVICE
    const Descriptor descriptor = descriptorOf(socket);
    if (!descriptor)
        return linux_error::invalid;
    return static_cast<int>(-systemCall(SystemCall::setSocketOption, descriptor.get(), socketLevel, bindToDeviceOption,
                                        link.name.c_str(), link.name.size() + 1));
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
    const int error = link ? bindToDevice(socket, *link) : linux_error::noDevice;
    entry.add("result", error == 0);
    if (error != 0)
        entry.add("linux-error", error);
    return result;
}

} // namespace ruvo::winehost
