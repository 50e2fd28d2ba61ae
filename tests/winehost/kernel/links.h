#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ruvo::winehost {

/// One network interface of this process's namespace, as the kernel lists it.
struct Link
{
    std::uint32_t index = 0;
    std::string name;
    std::string alias; ///< free text that goes with the interface
    std::string kind;  ///< "tun", "veth" …; empty for loopback
    std::uint16_t hardwareType = 0;
    std::uint32_t flags = 0;
    std::uint32_t mtu = 0;
    std::uint32_t largestMtu = 0;
    std::uint32_t tunQueues = 0; ///< descriptors that exchange packets with it now

    bool isTun() const { return kind == "tun"; }
    bool isLoopback() const;
    bool isEthernet() const;
    /// Up, and Linux is ready to send.
    bool isRunning() const;
    /// There is somebody at the other end; of a TUN, that is a program that exchanges packets with it.
    bool isConnected() const;
};

std::vector<Link> listLinks();
std::optional<Link> linkByIndex(std::uint32_t index);

struct LinkChange
{
    std::optional<std::string> alias = {};
    std::optional<std::uint32_t> mtu = {};
    std::optional<std::uint32_t> queueLength = {}; ///< packets that wait for a reader before they are dropped
    bool bringUp = false;
};

/// 0, or Linux's error number.
int changeLink(std::uint32_t index, const LinkChange &change);
int deleteLink(std::uint32_t index);

} // namespace ruvo::winehost
