#include "engine/udp_datagrams.h"

#include "common/dns_redirect.h"
#include "engine/dns_answers.h"
#include "socks5/socks5_messages.h"

#include <algorithm>
#include <utility>

namespace ruvo {

namespace {

constexpr std::uint8_t ipv4Type = 4;
constexpr std::uint8_t ipv6Type = 6;
constexpr std::size_t portSize = 2;
constexpr std::size_t addressOffset = 1;
constexpr std::size_t ipv4HeaderSize = addressOffset + 4 + portSize;
constexpr std::size_t ipv6HeaderSize = addressOffset + 16 + portSize;

std::uint8_t byteOf(std::uint32_t value, int shift)
{
    return static_cast<std::uint8_t>(value >> shift);
}

std::uint16_t readPort(std::span<const std::uint8_t> bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

} // namespace

UdpDestination destinationOf(const ConnectionKey &key)
{
    return {.family = key.family, .ip = key.destinationIp, .ip6 = key.destinationIp6, .port = key.destinationPort};
}

StoredDatagram storeDatagram(const UdpDestination &destination, std::span<const std::uint8_t> payload)
{
    const bool isIpv6 = destination.family == 6;
    StoredDatagram stored((isIpv6 ? ipv6HeaderSize : ipv4HeaderSize) + payload.size());
    auto next = stored.begin();
    *next++ = isIpv6 ? ipv6Type : ipv4Type;
    if (isIpv6) {
        next = std::ranges::copy(destination.ip6, next).out;
    } else {
        for (const int shift : {24, 16, 8, 0})
            *next++ = byteOf(destination.ip, shift);
    }
    *next++ = byteOf(destination.port, 8);
    *next++ = byteOf(destination.port, 0);
    std::ranges::copy(payload, next);
    return stored;
}

std::optional<FlowDatagram> readStoredDatagram(std::span<const std::uint8_t> stored)
{
    if (stored.size() >= ipv4HeaderSize && stored[0] == ipv4Type) {
        UdpDestination destination;
        for (const std::uint8_t byte : stored.subspan(addressOffset, 4))
            destination.ip = destination.ip << 8 | byte;
        destination.port = readPort(stored.subspan(ipv4HeaderSize - portSize));
        return FlowDatagram{destination, stored.subspan(ipv4HeaderSize)};
    }
    if (stored.size() >= ipv6HeaderSize && stored[0] == ipv6Type) {
        UdpDestination destination{.family = 6};
        std::ranges::copy(stored.subspan(addressOffset, destination.ip6.size()), destination.ip6.begin());
        destination.port = readPort(stored.subspan(ipv6HeaderSize - portSize));
        return FlowDatagram{destination, stored.subspan(ipv6HeaderSize)};
    }
    return std::nullopt;
}

void UdpDatagramQueue::add(StoredDatagram datagram)
{
    if (m_datagrams.size() == maxDatagrams)
        m_datagrams.pop_front();
    m_datagrams.push_back(std::move(datagram));
}

std::deque<StoredDatagram> UdpDatagramQueue::take()
{
    return std::exchange(m_datagrams, {});
}

bool RelayedDatagram::mayHoldNames() const
{
    return originPort == dnsPort && payload.size() >= minDnsMessageSize;
}

std::optional<RelayedDatagram> readRelayedDatagram(std::span<const std::uint8_t> datagram)
{
    const std::optional<std::size_t> headerSize = socks5::udpHeaderSize(datagram);
    if (!headerSize)
        return std::nullopt;
    // Every header ends with the port.
    return RelayedDatagram{.originPort = readPort(datagram.subspan(*headerSize - portSize)),
                           .payload = datagram.subspan(*headerSize)};
}

} // namespace ruvo
