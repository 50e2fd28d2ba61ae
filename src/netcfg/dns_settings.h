#pragma once

#include "common/winsock_headers.h"

#include <netioapi.h>

#include <string>

namespace ruvo {

// The DNS servers of one interface. Dotted addresses; the secondary may be empty. False (and logged) on failure.

/// IPv4: through SetInterfaceDnsSettings where Windows has it and it works, else through the registry.
bool writeDnsServers(const NET_LUID &luid, const std::string &primary, const std::string &secondary);

/// IPv6: through the registry. Two empty texts clear the servers.
bool writeIpv6DnsServers(const NET_LUID &luid, const std::string &primary, const std::string &secondary);

} // namespace ruvo
