#include "engine/connection_key.h"

#include "common/dns_redirect.h"

namespace ruvo {

ConnectionKey connectionKeyOf(const ParsedPacket &packet, std::uint32_t tunnelIp)
{
    ConnectionKey key;
    key.family = packet.version;
    key.protocol = packet.protocol;
    key.sourcePort = packet.srcPort;
    key.destinationPort = packet.dstPort;
    if (packet.version == 4) {
        key.sourceIp = packet.srcIp;
        key.destinationIp = realDestination({packet.dstIp, packet.dstPort}, tunnelIp).address;
    } else {
        key.sourceIp6 = packet.srcIp6;
        key.destinationIp6 = packet.dstIp6;
    }
    return key;
}

} // namespace ruvo
