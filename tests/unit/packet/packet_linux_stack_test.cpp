// What the codec makes has to be taken by a real TCP/IP stack: Linux's, behind a TUN device in a network namespace.
// Needs root. Linux only; the rest of the codec's tests run everywhere.

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "packet/packet_rewrite.h"
#include "support/log_capture.h"
#include "unit/packet/packet_tun_namespace.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace ruvo {
namespace {

using namespace test;

constexpr std::uint32_t stranger = 0xc6336407; // 198.51.100.7
constexpr int patience = 10'000;               // milliseconds

sockaddr_in socketAddress(std::uint32_t ip, std::uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    address.sin_port = htons(port);
    return address;
}

std::uint16_t portOf(const Descriptor &socket)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    return ntohs(address.sin_port);
}

/// A socket on the namespace's address and a port that the kernel chose. Calls on it never block.
class BoundSocket : public Descriptor
{
public:
    explicit BoundSocket(int type) : Descriptor(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = socketAddress(TunNamespace::address, 0);
        EXPECT_EQ(bind(get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        port = portOf(*this);
    }
    std::uint16_t port = 0;
};

bool waitFor(int socket, short events)
{
    pollfd ready = {.fd = socket, .events = events, .revents = 0};
    return poll(&ready, 1, patience) == 1;
}

int acceptFrom(const Descriptor &listener)
{
    if (!waitFor(listener.get(), POLLIN))
        return -1;
    return accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
}

Bytes receive(int socket, std::size_t size)
{
    Bytes all;
    while (all.size() < size && waitFor(socket, POLLIN)) {
        Bytes part(size - all.size());
        const ssize_t got = recv(socket, part.data(), part.size(), 0);
        if (got <= 0)
            break;
        all.insert(all.end(), part.begin(), part.begin() + got);
    }
    return all;
}

bool sendAll(int socket, const Bytes &bytes)
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count > 0)
            sent += static_cast<std::size_t>(count);
        else if (errno != EAGAIN || !waitFor(socket, POLLOUT))
            return false;
    }
    return true;
}

class LinuxStack : public ::testing::Test
{
protected:
    /// Speaks TCP to `m_port` from the stranger's address, as the engine does: packets made by the builder.
    void send(std::uint8_t flags, const Bytes &payload = {})
    {
        m_tun.inject(buildTcpPacket(stranger, 7000, TunNamespace::address, m_port, m_seq, m_ack, flags,
                                    payload.data(), payload.size()));
        m_seq += static_cast<std::uint32_t>(payload.size()) + (flags & (tcpSyn | tcpFin) ? 1 : 0);
    }
    /// The kernel's next packet to the stranger whose flags hold `flags`.
    ParsedPacket answer(std::uint8_t flags)
    {
        m_packet = m_tun.next([&](const ParsedPacket &packet) {
            return packet.protocol == protocolTcp && packet.dstIp == stranger && (packet.tcpFlags & flags) == flags;
        });
        return parsePacket(m_packet.data(), m_packet.size());
    }

    const LogCapture m_log;
    TunNamespace m_tun;
    Bytes m_packet;
    std::uint16_t m_port = 0;
    std::uint32_t m_seq = 1'000'000;
    std::uint32_t m_ack = 0;
};

TEST_F(LinuxStack, holdsAConversationWithTheTcpBuilder)
{
    const BoundSocket listener(SOCK_STREAM);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    m_port = listener.port;

    send(tcpSyn);
    const ParsedPacket synAnswer = answer(tcpSyn | tcpAck);
    ASSERT_TRUE(synAnswer.valid) << "no answer to the SYN";
    EXPECT_EQ(synAnswer.ack, m_seq);
    m_ack = synAnswer.seq + 1;

    send(tcpAck);
    const Descriptor connection(acceptFrom(listener));
    ASSERT_GE(connection.get(), 0);

    // Odd and even lengths, one behind the other.
    Bytes sent;
    for (std::size_t size = 1; size <= 1460; size += 73) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        send(tcpPsh | tcpAck, payload);
        sent = concat({sent, payload});
    }
    EXPECT_EQ(receive(connection.get(), sent.size()), sent);

    ASSERT_TRUE(sendAll(connection.get(), {'h', 'e', 'l', 'l', 'o'}));
    const ParsedPacket data = answer(tcpPsh | tcpAck);
    ASSERT_TRUE(data.valid) << "no data";
    EXPECT_EQ(Bytes(data.payload, data.payload + data.payloadLen), (Bytes{'h', 'e', 'l', 'l', 'o'}));
    m_ack = data.seq + 5;

    send(tcpFin | tcpAck);
    EXPECT_TRUE(waitFor(connection.get(), POLLIN));
    char none = 0;
    EXPECT_EQ(recv(connection.get(), &none, 1, 0), 0) << "the FIN was not taken";
}

TEST_F(LinuxStack, takesTheOptionsOfABuiltSynAnswer)
{
    const BoundSocket client(SOCK_STREAM);
    m_port = client.port;
    const sockaddr_in server = socketAddress(stranger, 7000);
    ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server), -1);
    ASSERT_EQ(errno, EINPROGRESS);
    const ParsedPacket syn = answer(tcpSyn);
    ASSERT_TRUE(syn.valid);
    EXPECT_EQ(syn.dstPort, 7000);
    m_ack = syn.seq + 1;

    send(tcpSyn | tcpAck);
    ASSERT_TRUE(waitFor(client.get(), POLLOUT));
    int error = -1;
    socklen_t size = sizeof error;
    ASSERT_EQ(getsockopt(client.get(), SOL_SOCKET, SO_ERROR, &error, &size), 0);
    EXPECT_EQ(error, 0);

    // It was told 1220 bytes a segment.
    ASSERT_TRUE(sendAll(client.get(), patternBytes(4000)));
    const ParsedPacket data = answer(tcpAck);
    ASSERT_TRUE(data.valid);
    if (data.payloadLen == 0) // the acknowledgement that completes the handshake comes first
        EXPECT_EQ(answer(tcpAck).payloadLen, 1220U);
    else
        EXPECT_EQ(data.payloadLen, 1220U);
}

// Without this the other tests would also pass on a stack that looks at no checksum.
TEST_F(LinuxStack, dropsBuiltPacketsThatWereDamaged)
{
    const BoundSocket receiver(SOCK_DGRAM);
    const auto datagram = [&](std::uint8_t content) {
        return buildUdpPacket(stranger, 53, TunNamespace::address, receiver.port, &content, 1);
    };
    Bytes damagedPayload = datagram('a');
    damagedPayload.back() ^= 0x20;
    Bytes damagedHeader = datagram('b');
    damagedHeader[8] ^= 0x01; // time to live
    m_tun.inject(damagedPayload);
    m_tun.inject(damagedHeader);
    m_tun.inject(datagram('c'));
    EXPECT_EQ(receive(receiver.get(), 1), Bytes{'c'});
}

TEST_F(LinuxStack, takesBuiltDatagramsOfEveryLength)
{
    const BoundSocket receiver(SOCK_DGRAM);
    for (std::size_t size = 0; size <= 1600; ++size) {
        const Bytes payload = patternBytes(size, static_cast<std::uint32_t>(size));
        m_tun.inject(buildUdpPacket(stranger, 53, TunNamespace::address, receiver.port, payload.data(), size));
        ASSERT_TRUE(waitFor(receiver.get(), POLLIN)) << size;
        Bytes got(2000);
        sockaddr_in from = {};
        socklen_t fromSize = sizeof from;
        const ssize_t count =
            recvfrom(receiver.get(), got.data(), got.size(), 0, reinterpret_cast<sockaddr *>(&from), &fromSize);
        ASSERT_EQ(count, static_cast<ssize_t>(size));
        got.resize(size);
        ASSERT_EQ(got, payload);
        ASSERT_EQ(ntohl(from.sin_addr.s_addr), stranger);
        ASSERT_EQ(ntohs(from.sin_port), 53);
    }
}

/// The NAT path in small: what goes to the stranger is rewritten so that it comes from the peer address and reaches
/// the listener on the namespace's own address; what the listener answers is rewritten to come from the stranger.
class Translator
{
public:
    Translator(TunNamespace &tun, std::uint16_t listenPort) : m_tun(tun), m_listenPort(listenPort) {}

    /// Handles packets until `m_stop`. Runs on a thread of its own.
    void run()
    {
        while (!m_stop)
            translateOne();
    }
    void stop() { m_stop = true; }
    int translated() const { return m_translated; }
    bool refused() const { return m_refused; }

private:
    static constexpr std::uint16_t natPort = 30000;

    void translateOne()
    {
        const auto isTcp = [](const ParsedPacket &packet) {
            return packet.version == 4 && packet.protocol == protocolTcp;
        };
        Bytes bytes = m_tun.next(isTcp, std::chrono::milliseconds(50));
        if (bytes.empty())
            return;
        const ParsedPacket packet = parsePacket(bytes.data(), bytes.size());
        bool rewritten = false;
        if (packet.dstIp == stranger) {
            m_clientPort = packet.srcPort;
            m_serverPort = packet.dstPort;
            rewritten = rewriteTcpAddresses(bytes.data(), bytes.size(), TunNamespace::peer, natPort,
                                            TunNamespace::address, m_listenPort);
        } else if (packet.dstIp == TunNamespace::peer && packet.dstPort == natPort) {
            rewritten = rewriteTcpAddresses(bytes.data(), bytes.size(), stranger, m_serverPort, TunNamespace::address,
                                            m_clientPort);
        }
        if (rewritten) {
            m_tun.inject(bytes);
            ++m_translated;
        } else {
            m_refused = true;
        }
    }

    TunNamespace &m_tun;
    const std::uint16_t m_listenPort;
    std::uint16_t m_clientPort = 0;
    std::uint16_t m_serverPort = 0;
    std::atomic<bool> m_stop = false;
    std::atomic<bool> m_refused = false;
    std::atomic<int> m_translated = 0;
};

TEST_F(LinuxStack, carriesAConnectionThroughRewritingInBothDirections)
{
    const BoundSocket listener(SOCK_STREAM);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    Translator translator(m_tun, listener.port);
    std::jthread translating([&] { translator.run(); });

    const BoundSocket client(SOCK_STREAM);
    const sockaddr_in server = socketAddress(stranger, 443);
    ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr *>(&server), sizeof server), -1);
    const Descriptor accepted(acceptFrom(listener));
    EXPECT_GE(accepted.get(), 0) << "the rewritten SYN was not taken";

    sockaddr_in from = {};
    socklen_t size = sizeof from;
    EXPECT_EQ(getpeername(accepted.get(), reinterpret_cast<sockaddr *>(&from), &size), 0);
    EXPECT_EQ(ntohl(from.sin_addr.s_addr), TunNamespace::peer);

    for (const auto &[sender, receiver] : {std::pair{client.get(), accepted.get()}, {accepted.get(), client.get()}}) {
        const Bytes megabyte = patternBytes(1 << 20, static_cast<std::uint32_t>(sender));
        std::jthread sending([&, to = sender] { EXPECT_TRUE(sendAll(to, megabyte)); });
        EXPECT_TRUE(receive(receiver, megabyte.size()) == megabyte);
    }

    translator.stop();
    translating.join();
    EXPECT_GT(translator.translated(), 1000);
    EXPECT_FALSE(translator.refused());
}

} // namespace
} // namespace ruvo
