#include "filtering/flow.h"

#include <cstring>

namespace ruvo::winehost {

namespace {

/// Of both systems, except for the family of IPv6, where Linux has another number.
struct Ipv4Name
{
    std::uint16_t family;
    std::uint16_t port;
    std::uint8_t address[4];
};

struct Ipv6Name
{
    std::uint16_t family;
    std::uint16_t port;
    std::uint32_t flow;
    std::uint8_t address[16];
};

constexpr std::uint16_t linuxIpv4 = 2;  // AF_INET
constexpr std::uint16_t linuxIpv6 = 10; // AF_INET6

template<typename Name>
void copyAddress(const void *from, Flow::Address &to)
{
    Name name;
    std::memcpy(&name, from, sizeof name);
    std::memcpy(to.data(), name.address, sizeof name.address);
}

/// Of SOL_SOCKET.
enum class SocketOption : int {
    type = 3,            // SO_TYPE
    boundInterface = 62, // SO_BINDTOIFINDEX
};

/// 0 on failure.
std::uint32_t optionOf(int descriptor, SocketOption option)
{
    constexpr int socketLevel = 1; // SOL_SOCKET
    std::uint32_t value = 0;
    std::uint32_t size = sizeof value;
    systemCall(SystemCall::getSocketOption, descriptor, socketLevel, option, &value, &size);
    return value;
}

} // namespace

std::optional<Flow> flowTo(const sockaddr *remote, int size)
{
    Flow flow;
    if (!remote || size < static_cast<int>(sizeof(sockaddr_in)))
        return std::nullopt;
    flow.isIpv6 = remote->sa_family == AF_INET6;
    if (flow.isIpv6 && size >= static_cast<int>(sizeof(Ipv6Name)))
        copyAddress<Ipv6Name>(remote, flow.remote);
    else if (remote->sa_family == AF_INET)
        copyAddress<Ipv4Name>(remote, flow.remote);
    else
        return std::nullopt;
    Ipv4Name start;
    std::memcpy(&start, remote, sizeof start);
    flow.port = ntohs(start.port);
    return flow;
}

std::optional<SocketFacts> factsOf(const Descriptor &descriptor)
{
    std::uint8_t name[128] = {};
    std::uint32_t size = sizeof name;
    // Winsock's own getsockname would ask the Wine server.
    if (!descriptor || systemCall(SystemCall::socketName, descriptor.get(), name, &size) != 0)
        return std::nullopt;
    std::uint16_t family = 0;
    std::memcpy(&family, name, sizeof family);
    if (family != linuxIpv4 && family != linuxIpv6)
        return std::nullopt;
    SocketFacts facts;
    facts.isIpv6 = family == linuxIpv6;
    if (facts.isIpv6)
        copyAddress<Ipv6Name>(name, facts.local);
    else
        copyAddress<Ipv4Name>(name, facts.local);
    constexpr std::uint32_t datagramSocket = 2; // SOCK_DGRAM
    facts.isUdp = optionOf(descriptor.get(), SocketOption::type) == datagramSocket;
    facts.interfaceIndex = optionOf(descriptor.get(), SocketOption::boundInterface);
    return facts;
}

bool completeFlow(Flow &flow, const SocketFacts &facts)
{
    if (flow.isIpv6 != facts.isIpv6)
        return false;
    flow.local = facts.local;
    flow.interfaceIndex = facts.interfaceIndex;
    flow.isUdp = facts.isUdp;
    return true;
}

std::string addressText(const Flow::Address &address, bool isIpv6)
{
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(isIpv6 ? AF_INET6 : AF_INET, address.data(), text, sizeof text);
    return text;
}

} // namespace ruvo::winehost
