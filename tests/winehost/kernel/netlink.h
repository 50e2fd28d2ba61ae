#pragma once

#include "kernel/system_call.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include <linux/netlink.h>

namespace ruvo::winehost {

/// One request of netlink: its fixed header, then attributes.
class NetlinkRequest
{
public:
    template<typename Header>
    NetlinkRequest(std::uint16_t type, std::uint16_t flags, const Header &header) : NetlinkRequest(type, flags)
    {
        append(&header, sizeof header);
    }

    void attribute(std::uint16_t type, std::uint32_t value) { attribute(type, &value, sizeof value); }
    void attribute(std::uint16_t type, std::string_view text);
    /// An IPv4 address, given in host order.
    void address(std::uint16_t type, std::uint32_t address);

    const std::vector<std::byte> &bytes() const { return m_bytes; }

private:
    NetlinkRequest(std::uint16_t type, std::uint16_t flags);
    void append(const void *data, std::size_t size);
    void attribute(std::uint16_t type, const void *data, std::size_t size);

    std::vector<std::byte> m_bytes;
};

/// The payload of one attribute.
class NetlinkAttribute
{
public:
    NetlinkAttribute(std::uint16_t type, const std::byte *data, std::size_t size)
        : m_type(type), m_data(data), m_size(size)
    {}

    std::uint16_t type() const { return m_type; }
    std::uint32_t number() const;
    std::string_view text() const;
    /// An IPv4 address in host order.
    std::uint32_t address() const;
    std::vector<NetlinkAttribute> nested() const;

private:
    std::uint16_t m_type;
    const std::byte *m_data;
    std::size_t m_size;
};

/// Sends a request on a socket of its own and hands each message of the answer to `take` (may be empty).
/// 0, or Linux's error number.
int askKernel(const NetlinkRequest &request, const std::function<void(const nlmsghdr &)> &take = {},
              int protocol = NETLINK_ROUTE);

/// The attributes behind a message's fixed header.
template<typename Header>
std::vector<NetlinkAttribute> attributesOf(const nlmsghdr &message)
{
    const auto *start = reinterpret_cast<const std::byte *>(&message) + sizeof(nlmsghdr);
    return NetlinkAttribute(0, start + sizeof(Header), message.nlmsg_len - sizeof(nlmsghdr) - sizeof(Header))
        .nested();
}

template<typename Header>
const Header &headerOf(const nlmsghdr &message)
{
    return *reinterpret_cast<const Header *>(&message + 1);
}

} // namespace ruvo::winehost
