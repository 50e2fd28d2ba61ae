// Unicast addresses, on the namespace's real interfaces.

#include "kernel/addresses.h"
#include "netconfig/network_call.h"

#include <algorithm>

namespace {

using namespace ruvo::winehost;

constexpr UINT8 unsetPrefixLength = 255;
constexpr unsigned longestPrefix = 32;

bool canBeAssigned(std::uint32_t address)
{
    constexpr std::uint32_t firstMulticast = 0xE0000000;
    return address != 0 && address < firstMulticast;
}

DWORD create(NetworkCall &call, const MIB_UNICASTIPADDRESS_ROW &row)
{
    if (row.Address.si_family == AF_INET6)
        return ERROR_NOT_SUPPORTED;
    const std::uint32_t address = ipv4Of(row.Address);
    const unsigned length = row.OnLinkPrefixLength == unsetPrefixLength ? longestPrefix : row.OnLinkPrefixLength;
    call.addPrefix("address", address, length);
    if (row.Address.si_family != AF_INET || !canBeAssigned(address) || length > longestPrefix
        || (row.InterfaceLuid.Value == 0 && row.InterfaceIndex == 0)) {
        return ERROR_INVALID_PARAMETER;
    }
    const auto link = call.link(row.InterfaceLuid, row.InterfaceIndex);
    if (!link)
        return ERROR_NOT_FOUND;
    // Whatever its prefix is: Linux would take the same address with another one.
    const auto isIt = [&](const InterfaceAddress &other) {
        return other.link == link->index && other.address == address;
    };
    if (std::ranges::any_of(listAddresses(), isIt))
        return ERROR_OBJECT_ALREADY_EXISTS;
    return windowsError(addAddress({link->index, address, static_cast<std::uint8_t>(length)}));
}

} // namespace

extern "C" {

VOID NETIOAPI_API_ InitializeUnicastIpAddressEntry(PMIB_UNICASTIPADDRESS_ROW row)
{
    const JournalEntry entry("InitializeUnicastIpAddressEntry");
    *row = {};
    row->PrefixOrigin = IpPrefixOriginUnchanged;
    row->SuffixOrigin = IpSuffixOriginUnchanged;
    row->ValidLifetime = ~ULONG{0};
    row->PreferredLifetime = ~ULONG{0};
    row->OnLinkPrefixLength = unsetPrefixLength;
}

NETIO_STATUS NETIOAPI_API_ CreateUnicastIpAddressEntry(const MIB_UNICASTIPADDRESS_ROW *row)
{
    NetworkCall call("CreateUnicastIpAddressEntry");
    return call.finish([&] { return row ? create(call, *row) : ERROR_INVALID_PARAMETER; });
}

} // extern "C"
