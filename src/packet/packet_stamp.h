#pragma once

#include "packet/packet_builder.h"

#include <cstdint>

namespace ruvo {

/// Gives a packet of buildTcpPacket other numbers and adjusts its checksum (RFC 1624): what such a packet costs does
/// not depend on its size. Host order.
void stampTcpNumbers(PacketBytes &packet, std::uint32_t seq, std::uint32_t ack);

} // namespace ruvo
