#pragma once

#include "kernel/system_call.h"

#include "common/winsock_headers.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::test {

struct UdpPorts
{
    USHORT source;
    USHORT destination;
};

/// A whole IPv4 packet, addresses in host order. Without a UDP checksum, which IPv4 permits.
std::vector<BYTE> udpPacket(ULONG source, ULONG destination, UdpPorts ports, std::string_view payload);

/// What a packet of that kind carries; empty for any other packet.
std::string_view udpPayload(std::span<const BYTE> packet);

/// Linux's end of a UDP conversation. A socket of Linux itself: Winsock's way would take longer than the packets do.
class UdpSocket
{
public:
    /// Bound to `address` and a port of the system's choice.
    explicit UdpSocket(ULONG address);

    USHORT port() const { return m_port; }
    /// Waits up to 5 s while too much of this socket is under way.
    bool sendTo(ULONG address, USHORT port, std::string_view payload) const;
    /// Waits up to 5 s, or not at all; "(nothing)" if nothing came.
    std::string receive(bool wait = true) const;

private:
    winehost::Descriptor m_socket;
    USHORT m_port = 0;
};

} // namespace ruvo::test
