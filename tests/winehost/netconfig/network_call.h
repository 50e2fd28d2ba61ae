#pragma once

#include "kernel/links.h"
#include "library/planned_call.h"

#include "common/winsock_headers.h"

#include <netioapi.h>

#include <optional>
#include <string>

namespace ruvo::winehost {

/// One call of IP Helper in the journal, with the interface that it is about.
class NetworkCall : public PlannedCall
{
public:
    using PlannedCall::PlannedCall;

    /// Finds the interface and writes it down. Nothing for one that does not exist.
    std::optional<Link> link(const NET_LUID &luid, NET_IFINDEX index);

    void addAddress(std::string_view key, std::uint32_t address);
    void addPrefix(std::string_view key, std::uint32_t address, unsigned length);
};

/// Dotted, from host order.
std::string ipv4Text(std::uint32_t address);

/// In host order; 0 for an address that was left out (its family too).
std::uint32_t ipv4Of(const SOCKADDR_INET &address);
bool isIpv4OrUnset(const SOCKADDR_INET &address);

/// What Windows would say for an error of Linux.
DWORD windowsError(int linuxError);

/// The number of leading ones, or nothing for a mask with a gap.
std::optional<std::uint8_t> prefixLengthOf(std::uint32_t mask);
std::uint32_t maskOf(unsigned prefixLength);

} // namespace ruvo::winehost
