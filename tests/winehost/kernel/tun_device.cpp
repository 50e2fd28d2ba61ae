#include "kernel/tun_device.h"

#include <algorithm>
#include <cstdint>

#include <asm/ioctl.h>
#include <linux/if_tun.h>

namespace ruvo::winehost {

namespace {

/// struct ifreq of linux/if.h, as far as it is used here.
struct InterfaceRequest
{
    char name[16];
    std::uint16_t flags;
    char unused[22];
};
static_assert(sizeof(InterfaceRequest) == 40);

std::int64_t control(const Descriptor &tun, std::uint32_t request, const void *argument)
{
    return systemCall(SystemCall::ioctl, tun.get(), request, argument);
}

} // namespace

std::expected<Descriptor, int> openTun(std::string_view link, TunInterface expected)
{
    const std::int64_t opened = systemCall(SystemCall::open, "/dev/net/tun",
                                           open_flags::readWrite | open_flags::nonBlocking | open_flags::closeOnExec);
    Descriptor tun(opened);
    if (!tun)
        return std::unexpected(static_cast<int>(-opened));
    InterfaceRequest request{};
    std::ranges::copy(link.substr(0, sizeof request.name - 1), request.name);
    request.flags = IFF_TUN | IFF_NO_PI | IFF_MULTI_QUEUE;
    if (expected == TunInterface::isNew)
        request.flags |= IFF_TUN_EXCL;
    if (const std::int64_t result = control(tun, TUNSETIFF, &request); result < 0)
        return std::unexpected(static_cast<int>(-result));
    return tun;
}

int detachQueue(const Descriptor &tun)
{
    InterfaceRequest request{};
    request.flags = IFF_DETACH_QUEUE;
    return static_cast<int>(-control(tun, TUNSETQUEUE, &request));
}

} // namespace ruvo::winehost
