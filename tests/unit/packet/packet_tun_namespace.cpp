#include "unit/packet/packet_tun_namespace.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/route.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace ruvo::test {

namespace {

void require(bool condition, const std::string &what)
{
    if (!condition)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

ifreq named(const char *name)
{
    ifreq request = {};
    std::strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    return request;
}

void setAddress(sockaddr &to, std::uint32_t ip)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    std::memcpy(&to, &address, sizeof address);
}

void bringUp(int socket, const char *name)
{
    ifreq request = named(name);
    require(ioctl(socket, SIOCGIFFLAGS, &request) == 0, std::string("flags of ") + name);
    request.ifr_flags |= IFF_UP;
    require(ioctl(socket, SIOCSIFFLAGS, &request) == 0, std::string("bringing up ") + name);
}

int openTunInNewNamespace()
{
    require(unshare(CLONE_NEWNET) == 0, "making a network namespace (root is needed)");
    const int tun = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    require(tun >= 0, "opening /dev/net/tun");
    return tun;
}

} // namespace

Descriptor::~Descriptor()
{
    if (m_value >= 0)
        close(m_value);
}

TunNamespace::TunNamespace() : m_tun(openTunInNewNamespace())
{
    constexpr char name[] = "tun-codec";
    ifreq request = named(name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    require(ioctl(m_tun.get(), TUNSETIFF, &request) == 0, "making the TUN device");

    const Descriptor control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    require(control.get() >= 0, "opening a socket");
    request = named(name);
    setAddress(request.ifr_addr, address);
    require(ioctl(control.get(), SIOCSIFADDR, &request) == 0, "setting the address");
    setAddress(request.ifr_netmask, 0xfffffffc);
    require(ioctl(control.get(), SIOCSIFNETMASK, &request) == 0, "setting the network mask");
    bringUp(control.get(), "lo");
    bringUp(control.get(), name);

    std::string device = name;
    rtentry route = {};
    route.rt_flags = RTF_UP;
    route.rt_dev = device.data();
    setAddress(route.rt_dst, 0);
    setAddress(route.rt_genmask, 0);
    require(ioctl(control.get(), SIOCADDRT, &route) == 0, "setting the default route");
}

void TunNamespace::inject(const Bytes &packet)
{
    const ssize_t written = write(m_tun.get(), packet.data(), packet.size());
    require(written == static_cast<ssize_t>(packet.size()), "writing to the TUN device");
}

Bytes TunNamespace::next(const std::function<bool(const ParsedPacket &)> &wanted, std::chrono::milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + timeout;
    while (Clock::now() < end) {
        Bytes packet(65536);
        const ssize_t size = read(m_tun.get(), packet.data(), packet.size());
        if (size > 0) {
            packet.resize(static_cast<std::size_t>(size));
            const ParsedPacket parsed = parsePacket(packet.data(), packet.size());
            if (parsed.valid && wanted(parsed))
                return packet;
            continue;
        }
        require(errno == EAGAIN || errno == EINTR, "reading from the TUN device");
        pollfd ready = {.fd = m_tun.get(), .events = POLLIN, .revents = 0};
        poll(&ready, 1, 50);
    }
    return {};
}

} // namespace ruvo::test
