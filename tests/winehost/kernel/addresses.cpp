#include "kernel/addresses.h"

#include "kernel/netlink.h"

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

namespace ruvo::winehost {

namespace {

constexpr std::uint8_t ipv4 = 2; // AF_INET

} // namespace

std::vector<InterfaceAddress> listAddresses()
{
    std::vector<InterfaceAddress> addresses;
    ifaddrmsg wanted{};
    wanted.ifa_family = ipv4;
    askKernel(NetlinkRequest(RTM_GETADDR, NLM_F_DUMP, wanted), [&](const nlmsghdr &message) {
        if (message.nlmsg_type != RTM_NEWADDR)
            return;
        const auto &head = headerOf<ifaddrmsg>(message);
        InterfaceAddress address{head.ifa_index, 0, head.ifa_prefixlen};
        for (const NetlinkAttribute &attribute : attributesOf<ifaddrmsg>(message)) {
            if (attribute.type() == IFA_LOCAL)
                address.address = attribute.address();
        }
        addresses.push_back(address);
    });
    return addresses;
}

int addAddress(const InterfaceAddress &address)
{
    ifaddrmsg head{};
    head.ifa_family = ipv4;
    head.ifa_prefixlen = address.prefixLength;
    head.ifa_index = address.link;
    NetlinkRequest request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, head);
    request.address(IFA_LOCAL, address.address);
    request.address(IFA_ADDRESS, address.address);
    return askKernel(request);
}

} // namespace ruvo::winehost
