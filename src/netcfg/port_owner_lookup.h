#pragma once

#include "common/endpoint.h"

#include <cstdint>
#include <string>

namespace ruvo {

/// Which program a local port belongs to that carries IPv4, as the system's endpoint tables say at this moment. The
/// IPv6 ones, where sockets for both families stand, are asked if the IPv4 ones have no row. Rows without a process
/// are passed over.
///
/// From any thread; nothing is kept between calls. Each look-up copies a whole table, which grows with every
/// connection of the machine: once for a new connection or flow, never for a packet.
///
/// Ports and addresses are in host order.
class PortOwnerLookup
{
public:
    /// The owner of the connection from `localPort`, whatever its local address and its state; 0 if there is none.
    static std::uint32_t tcpOwnerPid(std::uint16_t localPort, std::uint32_t remoteAddress, std::uint16_t remotePort);
    /// The owner of the first socket at `localPort`, whatever its local address; 0 if there is none.
    static std::uint32_t udpOwnerPid(std::uint16_t localPort);
    /// The owner of the socket that sends from `local`: one that is bound to that very address, else one that is
    /// bound to none; 0 if there is none.
    static std::uint32_t udpOwnerPid(const Endpoint &local);

    /// The full path of the program that runs as `pid`. What has no path, or none that we may see, gets a name that
    /// no executable can have: ":System Idle Process", ":System", "[PID:1234]".
    static std::wstring processImage(std::uint32_t pid);

    /// The owner's image, empty if there is no owner.
    static std::wstring tcpOwner(std::uint16_t localPort, std::uint32_t remoteAddress, std::uint16_t remotePort);
    static std::wstring udpOwner(std::uint16_t localPort);
};

} // namespace ruvo
