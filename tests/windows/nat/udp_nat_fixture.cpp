#include "windows/nat/udp_nat_fixture.h"

#include "packet/packet_parser.h"

namespace ruvo::test {

AssociationProxy::AssociationProxy(Answers answers)
    : m_answers(std::move(answers))
    , m_udp(WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED))
{
    const sockaddr_in address = loopbackAddress(0);
    EXPECT_EQ(bind(m_udp.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    const DWORD timeout = 20000;
    setsockopt(m_udp.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    m_tcp = std::make_unique<ParallelProxy>([this](ProxyConnection &connection, int) { serve(connection); });
}

void AssociationProxy::serve(ProxyConnection &connection)
{
    if (connection.receive(3) != QByteArray::fromHex("050100"))
        return;
    WaitForSingleObject(m_gate.get(), 20000);
    if (m_answers.isMute)
        return connection.waitForEnd();
    connection.send(m_answers.method);
    if (m_answers.method != QByteArray::fromHex("0500"))
        return connection.waitForEnd();
    if (connection.receive(10) != QByteArray::fromHex("05030001000000000000"))
        return;
    const std::uint16_t udpPort = portOf(m_udp.get());
    const QByteArray address = QByteArray::fromHex(m_answers.hidesAddress ? "0500000100000000" : "050000017f000001");
    connection.send(m_answers.reply.value_or(address + char(udpPort >> 8) + char(udpPort)));
    if (m_answers.reply && m_answers.reply->size() < 10)
        return; // with an end in the middle of it
    const std::lock_guard lock(m_mutex);
    m_kept.push_back(std::move(connection));
}

/// A client may know that its association stands before this side has put the connection away.
void AssociationProxy::waitForAll()
{
    EXPECT_TRUE(waitUntil([this] {
        const std::lock_guard lock(m_mutex);
        return std::cmp_equal(m_kept.size(), connections());
    }));
}

void AssociationProxy::babble()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    for (ProxyConnection &connection : m_kept)
        connection.send("b");
}

void AssociationProxy::endAssociations()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    m_kept.clear();
}

Ending AssociationProxy::endOfFirst()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    const Socket first = m_kept.front().take();
    return readToEnd(first.get());
}

AssociationProxy::Datagram AssociationProxy::receive() const
{
    Datagram datagram;
    char block[0x10000];
    int size = sizeof(datagram.from);
    const int received =
        recvfrom(m_udp.get(), block, sizeof(block), 0, reinterpret_cast<sockaddr *>(&datagram.from), &size);
    if (received > 0)
        datagram.bytes = QByteArray(block, received);
    return datagram;
}

void AssociationProxy::answer(const Datagram &to, const QByteArray &bytes) const
{
    sendto(m_udp.get(), bytes.constData(), static_cast<int>(bytes.size()), 0,
           reinterpret_cast<const sockaddr *>(&to.from), sizeof(to.from));
}

void UdpNatRelayTest::SetUp()
{
    NatTest::SetUp();
    makeRelay(UdpNatRelay::maxSessions);
}

void UdpNatRelayTest::makeRelay(std::size_t sessionLimit)
{
    m_relay = std::make_unique<UdpNatRelay>(
        m_stopEvent.get(), [this] { return m_now.load(); }, sessionLimit);
    m_relay->setFallback([this](const FlowKey &flow, std::span<const std::uint8_t> payload) {
        const std::lock_guard lock(m_mutex);
        m_refused.push_back({flow, QByteArray(reinterpret_cast<const char *>(payload.data()),
                                              static_cast<qsizetype>(payload.size()))});
    });
}

void UdpNatRelayTest::TearDown()
{
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
    EXPECT_EQ(m_relay->sessions(), 0u);
    NatTest::TearDown();
    m_relay.reset();
    m_proxy.reset();
    m_direct.reset();
}

void UdpNatRelayTest::startRelay(const std::string &host)
{
    ASSERT_TRUE(m_relay->initialize(client, host, m_proxy->port(), m_direct->port(), m_port,
                                    [this](const std::uint8_t *packet, std::size_t length) {
                                        const ParsedPacket parsed = parsePacket(packet, length);
                                        EXPECT_TRUE(parsed.valid);
                                        const std::lock_guard lock(m_mutex);
                                        m_packets.push_back(
                                            {parsed.srcIp, parsed.srcPort, parsed.dstIp, parsed.dstPort,
                                             QByteArray(reinterpret_cast<const char *>(parsed.payload),
                                                        static_cast<qsizetype>(parsed.payloadLen))});
                                    }));
}

void UdpNatRelayTest::useProxy(AssociationProxy::Answers answers)
{
    m_proxy = std::make_unique<AssociationProxy>(std::move(answers));
}

bool UdpNatRelayTest::forwardTo(std::uint16_t port, std::uint16_t clientPort, const QByteArray &payload)
{
    return m_relay->forward(
        {{client, clientPort}, {server, port}}, {server, port},
        {reinterpret_cast<const std::uint8_t *>(payload.constData()), static_cast<std::size_t>(payload.size())});
}

AssociationProxy::Datagram UdpNatRelayTest::establish(std::uint16_t clientPort, const QByteArray &payload)
{
    EXPECT_TRUE(forward(clientPort, payload));
    AssociationProxy::Datagram datagram = m_proxy->receive();
    EXPECT_EQ(datagram.bytes, header + payload);
    return datagram;
}

std::size_t UdpNatRelayTest::packetCount()
{
    const std::lock_guard lock(m_mutex);
    return m_packets.size();
}

std::optional<UdpNatRelayTest::Packet> UdpNatRelayTest::takePacket()
{
    if (!waitUntil([this] { return packetCount() > 0; }))
        return std::nullopt;
    const std::lock_guard lock(m_mutex);
    Packet first = std::move(m_packets.front());
    m_packets.erase(m_packets.begin());
    return first;
}

std::vector<UdpNatRelayTest::Refused> UdpNatRelayTest::refused()
{
    const std::lock_guard lock(m_mutex);
    return m_refused;
}

void UdpNatRelayTest::expectLine(const QString &line)
{
    EXPECT_TRUE(waitUntil([&] { return m_log.lines().contains(line); })) << line.toStdString() << "\nin\n"
                                                                         << m_log.lines().join('\n').toStdString();
}

} // namespace ruvo::test
