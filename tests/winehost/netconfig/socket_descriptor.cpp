#include "netconfig/socket_descriptor.h"

#include <windows.h>

#include <bit>

namespace ruvo::winehost {

namespace {

/// An export of Wine's ntdll; what it gives is a duplicate.
using HandleToDescriptor = LONG(CDECL *)(HANDLE handle, unsigned access, int *descriptor, unsigned *options);
const auto s_handleToDescriptor =
    std::bit_cast<HandleToDescriptor>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_server_handle_to_fd"));

} // namespace

Descriptor descriptorOf(void *handle)
{
    int descriptor = -1;
    if (!s_handleToDescriptor || s_handleToDescriptor(handle, FILE_READ_DATA, &descriptor, nullptr) != 0)
        return {};
    return Descriptor(descriptor);
}

} // namespace ruvo::winehost
