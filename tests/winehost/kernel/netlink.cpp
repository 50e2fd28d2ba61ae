#include "kernel/netlink.h"

#include <bit>
#include <cstring>
#include <memory>
#include <span>

#include <linux/rtnetlink.h>

namespace ruvo::winehost {

namespace {

constexpr int netlinkFamily = 16;  // AF_NETLINK
constexpr int rawSocket = 3;       // SOCK_RAW
constexpr int socketLevel = 1;     // SOL_SOCKET
constexpr int receiveTimeout = 20; // SO_RCVTIMEO
constexpr std::int64_t answerSeconds = 5;
constexpr std::size_t answerSize = 65536;

constexpr std::size_t aligned(std::size_t size)
{
    return (size + 3) & ~std::size_t{3};
}

struct TimeValue
{
    std::int64_t seconds;
    std::int64_t microseconds;
};

Descriptor openSocket(int protocol)
{
    Descriptor socket(systemCall(SystemCall::socket, netlinkFamily, rawSocket | open_flags::closeOnExec, protocol));
    const TimeValue limit{answerSeconds, 0};
    systemCall(SystemCall::setSocketOption, socket.get(), socketLevel, receiveTimeout, &limit, sizeof limit);
    return socket;
}

/// An answer ends with an acknowledgement (error 0), an error, or the end mark of a dump.
constexpr int moreToCome = -1;

int takeDatagram(std::span<const std::byte> datagram, const std::function<void(const nlmsghdr &)> &take)
{
    while (datagram.size() >= sizeof(nlmsghdr)) {
        const auto &message = *reinterpret_cast<const nlmsghdr *>(datagram.data());
        if (message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > datagram.size())
            return linux_error::invalid;
        if (message.nlmsg_type == NLMSG_DONE)
            return 0;
        if (message.nlmsg_type == NLMSG_ERROR)
            return -headerOf<nlmsgerr>(message).error;
        if (take)
            take(message);
        datagram = datagram.subspan(std::min(aligned(message.nlmsg_len), datagram.size()));
    }
    return moreToCome;
}

} // namespace

NetlinkRequest::NetlinkRequest(std::uint16_t type, std::uint16_t flags)
{
    nlmsghdr header{};
    header.nlmsg_len = sizeof header;
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
    if ((flags & NLM_F_DUMP) != NLM_F_DUMP)
        header.nlmsg_flags |= NLM_F_ACK;
    append(&header, sizeof header);
}

void NetlinkRequest::append(const void *data, std::size_t size)
{
    const auto *bytes = static_cast<const std::byte *>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + size);
    m_bytes.resize(aligned(m_bytes.size()));
    const auto length = static_cast<std::uint32_t>(m_bytes.size());
    std::memcpy(m_bytes.data(), &length, sizeof length);
}

void NetlinkRequest::attribute(std::uint16_t type, const void *data, std::size_t size)
{
    const rtattr head{static_cast<std::uint16_t>(sizeof(rtattr) + size), type};
    append(&head, sizeof head);
    append(data, size);
}

void NetlinkRequest::attribute(std::uint16_t type, std::string_view text)
{
    attribute(type, text.data(), text.size());
}

void NetlinkRequest::address(std::uint16_t type, std::uint32_t address)
{
    attribute(type, std::byteswap(address));
}

std::uint32_t NetlinkAttribute::number() const
{
    std::uint32_t value = 0;
    std::memcpy(&value, m_data, std::min(sizeof value, m_size));
    return value;
}

std::string_view NetlinkAttribute::text() const
{
    const std::string_view whole(reinterpret_cast<const char *>(m_data), m_size);
    return whole.substr(0, whole.find('\0'));
}

std::uint32_t NetlinkAttribute::address() const
{
    return std::byteswap(number());
}

std::vector<NetlinkAttribute> NetlinkAttribute::nested() const
{
    std::vector<NetlinkAttribute> found;
    for (std::size_t at = 0; at + sizeof(rtattr) <= m_size;) {
        rtattr head;
        std::memcpy(&head, m_data + at, sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > m_size - at)
            break;
        found.emplace_back(static_cast<std::uint16_t>(head.rta_type & NLA_TYPE_MASK), m_data + at + sizeof head,
                           head.rta_len - sizeof head);
        at += aligned(head.rta_len);
    }
    return found;
}

int askKernel(const NetlinkRequest &request, const std::function<void(const nlmsghdr &)> &take, int protocol)
{
    const Descriptor socket = openSocket(protocol);
    const std::int64_t sent =
        systemCall(SystemCall::sendTo, socket.get(), request.bytes().data(), request.bytes().size());
    if (sent < 0)
        return static_cast<int>(-sent);
    const auto answer = std::make_unique_for_overwrite<std::byte[]>(answerSize);
    for (;;) {
        const std::int64_t size = untilNotInterrupted(
            [&] { return systemCall(SystemCall::receiveFrom, socket.get(), answer.get(), answerSize); });
        if (size < 0)
            return static_cast<int>(-size);
        const int result = takeDatagram({answer.get(), static_cast<std::size_t>(size)}, take);
        if (result != moreToCome)
            return result;
    }
}

} // namespace ruvo::winehost
