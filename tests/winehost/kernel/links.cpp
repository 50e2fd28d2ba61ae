#include "kernel/links.h"

#include "kernel/netlink.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace ruvo::winehost {

namespace {

// Of linux/if.h and linux/if_arp.h, which bring in the C library of Linux.
constexpr std::uint32_t flagUp = 0x1;
constexpr std::uint32_t flagRunning = 0x40;
constexpr std::uint16_t ethernetType = 1;
constexpr std::uint16_t loopbackType = 772;

void readTunData(Link &link, const NetlinkAttribute &data)
{
    for (const NetlinkAttribute &attribute : data.nested()) {
        if (attribute.type() == IFLA_TUN_NUM_QUEUES)
            link.tunQueues = attribute.number();
    }
}

void readLinkInfo(Link &link, const NetlinkAttribute &info)
{
    // The kind comes first: only its own data can be understood.
    for (const NetlinkAttribute &attribute : info.nested()) {
        if (attribute.type() == IFLA_INFO_KIND)
            link.kind = attribute.text();
        else if (attribute.type() == IFLA_INFO_DATA && link.isTun())
            readTunData(link, attribute);
    }
}

Link readLink(const nlmsghdr &message)
{
    const auto &head = headerOf<ifinfomsg>(message);
    Link link;
    link.index = static_cast<std::uint32_t>(head.ifi_index);
    link.hardwareType = head.ifi_type;
    link.flags = head.ifi_flags;
    for (const NetlinkAttribute &attribute : attributesOf<ifinfomsg>(message)) {
        switch (attribute.type()) {
        case IFLA_IFNAME: link.name = attribute.text(); break;
        case IFLA_IFALIAS: link.alias = attribute.text(); break;
        case IFLA_MTU: link.mtu = attribute.number(); break;
        case IFLA_MAX_MTU: link.largestMtu = attribute.number(); break;
        case IFLA_LINKINFO: readLinkInfo(link, attribute); break;
        default: break;
        }
    }
    return link;
}

ifinfomsg headFor(std::uint32_t index)
{
    ifinfomsg head{};
    head.ifi_index = static_cast<int>(index);
    return head;
}

} // namespace

bool Link::isLoopback() const
{
    return hardwareType == loopbackType;
}

bool Link::isEthernet() const
{
    return hardwareType == ethernetType;
}

bool Link::isRunning() const
{
    return (flags & flagUp) != 0 && (flags & flagRunning) != 0;
}

bool Link::isConnected() const
{
    return isRunning() && (!isTun() || tunQueues > 0);
}

std::vector<Link> listLinks()
{
    std::vector<Link> links;
    askKernel(NetlinkRequest(RTM_GETLINK, NLM_F_DUMP, ifinfomsg{}), [&](const nlmsghdr &message) {
        if (message.nlmsg_type == RTM_NEWLINK)
            links.push_back(readLink(message));
    });
    return links;
}

std::optional<Link> linkByIndex(std::uint32_t index)
{
    for (Link &link : listLinks()) {
        if (link.index == index)
            return std::move(link);
    }
    return std::nullopt;
}

int changeLink(std::uint32_t index, const LinkChange &change)
{
    ifinfomsg head = headFor(index);
    if (change.bringUp) {
        head.ifi_flags = flagUp;
        head.ifi_change = flagUp;
    }
    NetlinkRequest request(RTM_SETLINK, 0, head);
    if (change.alias)
        request.attribute(IFLA_IFALIAS, *change.alias);
    if (change.mtu)
        request.attribute(IFLA_MTU, *change.mtu);
    if (change.queueLength)
        request.attribute(IFLA_TXQLEN, *change.queueLength);
    return askKernel(request);
}

int deleteLink(std::uint32_t index)
{
    return askKernel(NetlinkRequest(RTM_DELLINK, 0, headFor(index)));
}

} // namespace ruvo::winehost
