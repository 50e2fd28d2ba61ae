#include "kernel/socket_table.h"

#include "kernel/netlink.h"

#include <bit>

#include <linux/inet_diag.h>
#include <linux/sock_diag.h>

namespace ruvo::winehost {

namespace {

constexpr std::uint8_t ipv4 = 2; // AF_INET

constexpr std::uint32_t bit(SocketState state)
{
    return 1U << static_cast<unsigned>(state);
}

/// From the first to the last that has a name here. Newer kernels know a further one, of sockets that are bound and
/// no more: they would walk through all ports for it.
constexpr std::uint32_t allStates = 2 * bit(SocketState::newSynReceived) - bit(SocketState::established);

InetSocket socketOf(const inet_diag_msg &message)
{
    return {static_cast<SocketState>(message.idiag_state),
            std::byteswap(static_cast<std::uint16_t>(message.id.idiag_sport)),
            std::byteswap(static_cast<std::uint16_t>(message.id.idiag_dport)),
            std::byteswap(static_cast<std::uint32_t>(message.id.idiag_src[0])),
            std::byteswap(static_cast<std::uint32_t>(message.id.idiag_dst[0])),
            message.idiag_inode};
}

} // namespace

std::expected<std::vector<InetSocket>, int> listSockets(SocketKind kind)
{
    inet_diag_req_v2 wanted{};
    wanted.sdiag_family = ipv4;
    wanted.sdiag_protocol = static_cast<std::uint8_t>(kind);
    wanted.idiag_states = allStates & ~bit(SocketState::timeWait);
    std::vector<InetSocket> sockets;
    const auto take = [&](const nlmsghdr &message) {
        if (message.nlmsg_type == SOCK_DIAG_BY_FAMILY)
            sockets.push_back(socketOf(headerOf<inet_diag_msg>(message)));
    };
    const int error = askKernel(NetlinkRequest(SOCK_DIAG_BY_FAMILY, NLM_F_DUMP, wanted), take, NETLINK_SOCK_DIAG);
    if (error != 0)
        return std::unexpected(error);
    return sockets;
}

} // namespace ruvo::winehost
