#include "socks5/socks5_messages.h"

#include <algorithm>
#include <initializer_list>

namespace ruvo::socks5 {

namespace {

// Address types, RFC 1928 section 5.
constexpr std::uint8_t ipv4Type = 1;
constexpr std::uint8_t domainType = 3;
constexpr std::uint8_t ipv6Type = 4;

constexpr std::uint8_t connectCommand = 1;
constexpr std::uint8_t succeeded = 0;

// Before the address: version or reserved, reply or reserved, reserved or fragment, address type.
constexpr std::size_t addressOffset = 4;
constexpr std::size_t portSize = 2;

std::uint8_t byteOf(std::uint32_t value, int shift)
{
    return static_cast<std::uint8_t>(value >> shift);
}

std::array<std::uint8_t, 4> addressBytes(std::uint32_t address)
{
    return {byteOf(address, 24), byteOf(address, 16), byteOf(address, 8), byteOf(address, 0)};
}

std::array<std::uint8_t, 2> portBytes(std::uint16_t port)
{
    return {byteOf(port, 8), byteOf(port, 0)};
}

Bytes concatenate(std::initializer_list<ByteView> pieces)
{
    std::size_t size = 0;
    for (const ByteView piece : pieces)
        size += piece.size();
    Bytes bytes(size);
    auto end = bytes.begin();
    for (const ByteView piece : pieces)
        end = std::ranges::copy(piece, end).out;
    return bytes;
}

Bytes datagram(std::uint8_t type, ByteView address, std::uint16_t port, ByteView payload)
{
    return concatenate({std::array<std::uint8_t, addressOffset>{0, 0, 0, type}, address, portBytes(port), payload});
}

} // namespace

bool isMethodAccepted(ByteView reply)
{
    return reply.size() == methodReplySize && reply[0] == protocolVersion && reply[1] == 0;
}

std::array<std::uint8_t, 10> connectRequest(std::uint32_t address, std::uint16_t port)
{
    const auto a = addressBytes(address);
    const auto p = portBytes(port);
    return {protocolVersion, connectCommand, 0, ipv4Type, a[0], a[1], a[2], a[3], p[0], p[1]};
}

Bytes connectRequest(const Ipv6Address &address, std::uint16_t port)
{
    return concatenate({std::array<std::uint8_t, addressOffset>{protocolVersion, connectCommand, 0, ipv6Type},
                        address, portBytes(port)});
}

std::optional<Bytes> connectRequest(std::string_view domain, std::uint16_t port, std::size_t maxLength)
{
    if (domain.empty() || domain.size() > maxLength)
        return std::nullopt;
    const std::array<std::uint8_t, 5> head = {protocolVersion, connectCommand, 0, domainType,
                                              static_cast<std::uint8_t>(domain.size())};
    const ByteView name(reinterpret_cast<const std::uint8_t *>(domain.data()), domain.size());
    return concatenate({head, name, portBytes(port)});
}

std::size_t replySize(ByteView start)
{
    std::size_t size = minReplySize;
    if (start[3] == ipv6Type)
        size = addressOffset + Ipv6Address().size() + portSize;
    else if (start[3] == domainType)
        size = addressOffset + 1 + start[addressOffset] + portSize;
    return std::clamp(size, minReplySize, maxReplySize);
}

std::optional<std::uint8_t> replyFailure(ByteView reply)
{
    if (reply[0] == protocolVersion && reply[1] == succeeded)
        return std::nullopt;
    return reply[1];
}

std::optional<Endpoint> parseUdpAssociateReply(ByteView reply, std::uint32_t proxyAddress)
{
    if (reply.size() < minReplySize || replyFailure(reply) || reply[3] != ipv4Type)
        return std::nullopt;
    Endpoint relay;
    for (const std::uint8_t byte : reply.subspan(addressOffset, 4))
        relay.address = relay.address << 8 | byte;
    relay.port = static_cast<std::uint16_t>(reply[8] << 8 | reply[9]);
    if (relay.address == 0)
        relay.address = proxyAddress;
    return relay;
}

std::array<std::uint8_t, udpHeaderSizeIpv4> udpHeader(std::uint32_t address, std::uint16_t port)
{
    return {0,
            0,
            0,
            ipv4Type,
            byteOf(address, 24),
            byteOf(address, 16),
            byteOf(address, 8),
            byteOf(address, 0),
            byteOf(port, 8),
            byteOf(port, 0)};
}

Bytes udpDatagram(ByteView payload, std::uint32_t address, std::uint16_t port)
{
    return datagram(ipv4Type, addressBytes(address), port, payload);
}

Bytes udpDatagram(ByteView payload, const Ipv6Address &address, std::uint16_t port)
{
    return datagram(ipv6Type, address, port, payload);
}

std::optional<std::size_t> udpHeaderSize(ByteView datagram)
{
    if (datagram.size() < udpHeaderSizeIpv4)
        return std::nullopt;
    std::size_t size = 0;
    switch (datagram[3]) {
    case ipv4Type: size = udpHeaderSizeIpv4; break;
    case ipv6Type: size = udpHeaderSizeIpv6; break;
    case domainType: size = addressOffset + 1 + datagram[addressOffset] + portSize; break;
    default: return std::nullopt;
    }
    if (datagram.size() < size)
        return std::nullopt;
    return size;
}

} // namespace ruvo::socks5
