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

QString ipv6Text(const Ipv6Bytes &address)
{
    QStringList groups;
    for (std::size_t i = 0; i < address.size(); i += 2)
        groups += QString::number(address[i] << 8 | address[i + 1], 16);
    return groups.join(u':');
}

QString destinationText(const ConnectionKey &key)
{
    return key.family == 4 ? formatIpv4(key.destinationIp) : ipv6Text(key.destinationIp6);
}

} // namespace ruvo
