#include "windows/engine/udp_flows_fixture.h"

#include "common/dns_redirect.h"
#include "packet/packet_builder.h"

#include <QRegularExpression>

#include <utility>

namespace ruvo::test {

using namespace std::chrono_literals;

namespace {

QByteArray two(std::size_t value)
{
    const char bytes[] = {static_cast<char>(value >> 8), static_cast<char>(value)};
    return QByteArray(bytes, 2);
}

QByteArray bytesAt(const void *data, std::size_t size)
{
    return QByteArray(static_cast<const char *>(data), static_cast<qsizetype>(size));
}

} // namespace

AssociationServer::AssociationServer(Answers answers)
    : m_answers(std::move(answers))
    , m_udp(WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED))
{
    const sockaddr_in address = loopbackAddress(0);
    EXPECT_EQ(bind(m_udp.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    const DWORD timeout = 20000;
    setsockopt(m_udp.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    m_tcp = std::make_unique<ParallelProxy>([this](ProxyConnection &connection, int) { serve(connection); });
}

void AssociationServer::serve(ProxyConnection &connection)
{
    if (connection.receive(3) != QByteArray::fromHex("050100"))
        return;
    WaitForSingleObject(m_gate.get(), 20000);
    if (m_answers.isMute)
        return connection.waitForEnd();
    connection.send(m_answers.method);
    if (m_answers.method.size() < 2)
        return; // with an end in the middle of it
    if (m_answers.method != QByteArray::fromHex("0500"))
        return connection.waitForEnd();
    if (connection.receive(10) != QByteArray::fromHex("05030001000000000000"))
        return;
    const QByteArray address = QByteArray::fromHex(m_answers.hidesAddress ? "0500000100000000" : "050000017f000001");
    connection.send(m_answers.reply.value_or(address + two(portOf(m_udp.get()))));
    if (m_answers.reply && m_answers.reply->size() < 10)
        return;
    const std::lock_guard lock(m_mutex);
    m_kept.push_back(std::move(connection));
}

/// A client may know that its association stands before this side has put the connection away.
void AssociationServer::waitForAll()
{
    EXPECT_TRUE(waitUntil([this] {
        const std::lock_guard lock(m_mutex);
        return std::cmp_equal(m_kept.size(), connections());
    }));
}

void AssociationServer::babble()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    for (ProxyConnection &connection : m_kept)
        connection.send(QByteArray(100, 'b'));
}

void AssociationServer::endAssociations()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    m_kept.clear();
}

Ending AssociationServer::endOfFirst()
{
    waitForAll();
    const std::lock_guard lock(m_mutex);
    const Socket first = m_kept.front().take();
    return readToEnd(first.get());
}

AssociationServer::Datagram AssociationServer::receive() const
{
    Datagram datagram;
    static thread_local char s_block[0x10000];
    int size = sizeof(datagram.from);
    const int received =
        recvfrom(m_udp.get(), s_block, sizeof(s_block), 0, reinterpret_cast<sockaddr *>(&datagram.from), &size);
    if (received > 0)
        datagram.bytes = QByteArray(s_block, received);
    return datagram;
}

void AssociationServer::answer(const Datagram &to, const QByteArray &bytes) const
{
    sendto(m_udp.get(), bytes.constData(), static_cast<int>(bytes.size()), 0,
           reinterpret_cast<const sockaddr *>(&to.from), sizeof(to.from));
}

void UdpFlowsTest::SetUp()
{
    NatTest::SetUp();
    m_services.proxyHost = L"127.0.0.1";
    m_services.tunnelIp = tunnel;
    m_services.completionPort = &m_port;
    m_services.chooseUpstream = [this](std::uint32_t, std::uint16_t port) {
        return UpstreamDecision{.port = port == dnsPort ? m_dns->port() : m_proxy->port(), .isDirect = false};
    };
    m_services.learn = [this](const DnsAnswer &answer) {
        const std::lock_guard lock(m_mutex);
        m_learnt.push_back(answer);
    };
    m_services.send = [this](const std::uint8_t *packet, std::size_t size) {
        const ParsedPacket parsed = parsePacket(packet, size);
        EXPECT_TRUE(parsed.valid);
        const std::lock_guard lock(m_mutex);
        m_packets.push_back({.from = {parsed.srcIp, parsed.srcPort},
                             .to = {parsed.dstIp, parsed.dstPort},
                             .payload = bytesAt(parsed.payload, parsed.payloadLen)});
    };
    m_services.clock = [this] { return SteadyTime(std::chrono::nanoseconds(m_now.load())); };
    makeFlows();
}

void UdpFlowsTest::TearDown()
{
    m_flows->closeAll();
    EXPECT_EQ(m_flows->size(), 0u);
    NatTest::TearDown();
    m_flows.reset();
    m_proxy->openGate();
    m_proxy.reset();
    m_dns.reset();
}

void UdpFlowsTest::useProxy(AssociationServer::Answers answers)
{
    m_proxy = std::make_unique<AssociationServer>(std::move(answers));
}

void UdpFlowsTest::makeFlows(std::size_t limit)
{
    m_flows = std::make_unique<UdpFlows>(m_services, limit);
}

void UdpFlowsTest::goTo(std::uint16_t port)
{
    m_services.chooseUpstream = [port](std::uint32_t, std::uint16_t) {
        return UpstreamDecision{.port = port, .isDirect = false};
    };
}

void UdpFlowsTest::send(std::uint16_t clientPort, const QByteArray &payload, Endpoint to)
{
    const PacketBytes packet = buildUdpPacket(tunnel, clientPort, to.address, to.port,
                                              reinterpret_cast<const std::uint8_t *>(payload.constData()),
                                              static_cast<std::size_t>(payload.size()));
    m_flows->handleUdpPacket(parsePacket(packet.data(), packet.size()));
}

void UdpFlowsTest::sendIpv6(std::uint16_t clientPort, const QByteArray &payload, std::uint16_t toPort)
{
    const std::size_t size = 8 + static_cast<std::size_t>(payload.size());
    const QByteArray packet = QByteArray::fromHex("60000000") + two(size) + QByteArray::fromHex("1140")
                              + QByteArray::fromHex("fd000000000000000000000000000001")
                              + QByteArray::fromHex("20010db8000000000000000000000002") + two(clientPort)
                              + two(toPort) + two(size) + two(0) + payload;
    m_flows->handleUdpPacket(parsePacket(reinterpret_cast<const std::uint8_t *>(packet.constData()),
                                         static_cast<std::size_t>(packet.size())));
}

AssociationServer::Datagram UdpFlowsTest::establish(std::uint16_t clientPort, const QByteArray &payload)
{
    send(clientPort, payload);
    AssociationServer::Datagram datagram = m_proxy->receive();
    EXPECT_TRUE(datagram.bytes == header + payload) << datagram.bytes.left(64).toHex().toStdString();
    return datagram;
}

std::size_t UdpFlowsTest::packetCount()
{
    const std::lock_guard lock(m_mutex);
    return m_packets.size();
}

std::optional<UdpFlowsTest::Packet> UdpFlowsTest::takePacket()
{
    if (!waitUntil([this] { return packetCount() > 0; }))
        return std::nullopt;
    const std::lock_guard lock(m_mutex);
    Packet first = std::move(m_packets.front());
    m_packets.erase(m_packets.begin());
    return first;
}

std::vector<DnsAnswer> UdpFlowsTest::learnt()
{
    const std::lock_guard lock(m_mutex);
    return m_learnt;
}

UdpFlowPtr UdpFlowsTest::onlyFlow()
{
    const std::vector<UdpFlowPtr> flows = m_flows->flows();
    EXPECT_EQ(flows.size(), 1u);
    return flows.empty() ? nullptr : flows.front();
}

void UdpFlowsTest::expectGone()
{
    EXPECT_TRUE(waitUntil([this] { return m_flows->size() == 0 && m_port.inFlight() == 0; }))
        << m_flows->size() << " flows, " << m_port.inFlight() << " operations";
}

void UdpFlowsTest::expectLine(const QString &line)
{
    EXPECT_TRUE(waitUntil([&] { return m_log.lines().contains(line); })) << line.toStdString() << "\nin\n"
                                                                         << m_log.lines().join('\n').toStdString();
}

QStringList UdpFlowsTest::withoutNumbers(QStringList lines)
{
    static const QRegularExpression s_socket("(?<!TCP )(?<!UDP )socket: \\d+");
    static const QRegularExpression s_port("iocp: 0x[0-9a-f]+");
    for (QString &line : lines)
        line.replace(s_socket, "socket: %").replace(s_port, "iocp: %");
    return lines;
}

void UdpFlowsTest::pass(std::chrono::seconds time)
{
    m_now += std::chrono::nanoseconds(time).count();
}

} // namespace ruvo::test
