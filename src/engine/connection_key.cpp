#include "engine/connection_key.h"

#include "common/dns_redirect.h"
#include "common/ipv4.h"

#include <QStringList>

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

QString destinationText(const ConnectionKey &key)
{
    if (key.family == 4)
        return formatIpv4(key.destinationIp);
    QStringList groups;
    for (std::size_t i = 0; i < key.destinationIp6.size(); i += 2)
        groups += QString::number(key.destinationIp6[i] << 8 | key.destinationIp6[i + 1], 16);
    return groups.join(u':');
}

} // namespace ruvo
