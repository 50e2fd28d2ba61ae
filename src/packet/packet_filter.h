#pragma once

#include "packet/packet_parser.h"

namespace ruvo {

// Packets that no path takes, whatever their protocol.

/// To an address that is never reached through the tunnel: multicast, this host's own loopback, link-local, or an
/// address that ends in 255 (taken for a broadcast).
bool isUnroutable(const ParsedPacket &packet);

/// A part of a larger packet (RFC 791 section 3.1, RFC 8200 section 4.5): all but the first have no ports.
bool isFragment(const ParsedPacket &packet);

} // namespace ruvo
