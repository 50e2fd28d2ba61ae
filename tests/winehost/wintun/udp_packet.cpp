#include "wintun/udp_packet.h"

#include <algorithm>

namespace ruvo::test {

using winehost::SystemCall;
using winehost::systemCall;

namespace {

// Linux's numbers, where they are not Windows' own.
constexpr int datagramSocket = 2;                              // SOCK_DGRAM
constexpr int closeOnExec = winehost::open_flags::closeOnExec; // SOCK_CLOEXEC
constexpr int socketLevel = 1;                                 // SOL_SOCKET
constexpr int receiveTimeout = 20;                             // SO_RCVTIMEO
constexpr int sendTimeout = 21;                                // SO_SNDTIMEO
constexpr int dontWait = 0x40;                                 // MSG_DONTWAIT

constexpr std::size_t ipHeader = 20;
constexpr std::size_t udpHeader = 8;
constexpr BYTE udpProtocol = 17;

void put16(BYTE *at, std::size_t value)
{
    at[0] = static_cast<BYTE>(value >> 8);
    at[1] = static_cast<BYTE>(value);
}

void put32(BYTE *at, ULONG value)
{
    put16(at, value >> 16);
    put16(at + 2, value & 0xFFFF);
}

std::size_t headerChecksum(const BYTE *header)
{
    std::size_t sum = 0;
    for (std::size_t i = 0; i < ipHeader; i += 2)
        sum += (static_cast<std::size_t>(header[i]) << 8) | header[i + 1];
    while (sum > 0xFFFF)
        sum = (sum >> 16) + (sum & 0xFFFF);
    return ~sum & 0xFFFF;
}

sockaddr_in socketAddress(ULONG address, USHORT port)
{
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(address);
    name.sin_port = htons(port);
    return name;
}

} // namespace

std::vector<BYTE> udpPacket(ULONG source, ULONG destination, UdpPorts ports, std::string_view payload)
{
    std::vector<BYTE> packet(ipHeader + udpHeader + payload.size());
    packet[0] = 0x45;
    put16(&packet[2], packet.size());
    packet[8] = 64; // time to live
    packet[9] = udpProtocol;
    put32(&packet[12], source);
    put32(&packet[16], destination);
    put16(&packet[10], headerChecksum(packet.data()));
    put16(&packet[20], ports.source);
    put16(&packet[22], ports.destination);
    put16(&packet[24], udpHeader + payload.size());
    std::ranges::copy(payload, packet.begin() + ipHeader + udpHeader);
    return packet;
}

std::string_view udpPayload(std::span<const BYTE> packet)
{
    if (packet.size() < ipHeader + udpHeader || packet[0] != 0x45 || packet[9] != udpProtocol)
        return {};
    const auto payload = packet.subspan(ipHeader + udpHeader);
    return {reinterpret_cast<const char *>(payload.data()), payload.size()};
}

UdpSocket::UdpSocket(ULONG address)
    : m_socket(systemCall(SystemCall::socket, AF_INET, datagramSocket | closeOnExec, 0))
{
    sockaddr_in name = socketAddress(address, 0);
    std::int32_t size = sizeof name;
    systemCall(SystemCall::bind, m_socket.get(), &name, size);
    systemCall(SystemCall::socketName, m_socket.get(), &name, &size);
    m_port = ntohs(name.sin_port);
    const std::int64_t timeout[] = {5, 0}; // seconds, microseconds
    for (const int option : {receiveTimeout, sendTimeout})
        systemCall(SystemCall::setSocketOption, m_socket.get(), socketLevel, option, timeout, sizeof timeout);
}

bool UdpSocket::sendTo(ULONG address, USHORT port, std::string_view payload) const
{
    const sockaddr_in name = socketAddress(address, port);
    return systemCall(SystemCall::sendTo, m_socket.get(), payload.data(), payload.size(), 0, &name, sizeof name)
           == static_cast<std::int64_t>(payload.size());
}

std::string UdpSocket::receive(bool wait) const
{
    std::string payload(65536, '\0');
    const std::int64_t size =
        systemCall(SystemCall::receiveFrom, m_socket.get(), payload.data(), payload.size(), wait ? 0 : dontWait);
    if (size < 0)
        return "(nothing)";
    payload.resize(static_cast<std::size_t>(size));
    return payload;
}

} // namespace ruvo::test
