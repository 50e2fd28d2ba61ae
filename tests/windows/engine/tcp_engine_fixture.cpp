#include "windows/engine/tcp_engine_fixture.h"

#include "packet/packet_builder.h"
#include "packet/packet_parser.h"

namespace ruvo::test {

using namespace std::chrono_literals;

bool FakeAdapter::trySend(const std::uint8_t *packet, std::size_t size)
{
    const ParsedPacket parsed = parsePacket(packet, size);
    EXPECT_TRUE(parsed.valid && readTcpSegment(parsed)) << "a packet that no application would take";
    const std::lock_guard lock(m_mutex);
    if (m_room && (*m_room)-- == 0) {
        m_room = 0;
        return false;
    }
    m_replies[parsed.dstPort].push_back(
        {.from = {parsed.srcIp, parsed.srcPort},
         .to = {parsed.dstIp, parsed.dstPort},
         .seq = parsed.seq,
         .ack = parsed.ack,
         .flags = parsed.tcpFlags,
         .payload = QByteArray(reinterpret_cast<const char *>(parsed.payload), qsizetype(parsed.payloadLen))});
    m_changed.notify_all();
    return true;
}

void FakeAdapter::setRoom(std::optional<std::size_t> packets)
{
    const std::lock_guard lock(m_mutex);
    m_room = packets;
}

std::optional<Reply> FakeAdapter::next(std::uint16_t port, std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_mutex);
    std::deque<Reply> &replies = m_replies[port];
    if (!m_changed.wait_for(lock, timeout, [&] { return !replies.empty(); }))
        return std::nullopt;
    Reply reply = std::move(replies.front());
    replies.pop_front();
    return reply;
}

std::size_t FakeAdapter::unread(std::uint16_t port)
{
    const std::lock_guard lock(m_mutex);
    return m_replies[port].size();
}

void FakeAdapter::forget(std::uint16_t port)
{
    const std::lock_guard lock(m_mutex);
    m_replies.erase(port);
}

void FakeAdapter::forgetAll()
{
    const std::lock_guard lock(m_mutex);
    m_replies.clear();
}

Application::Application(TcpEngine &engine, FakeAdapter &adapter, FlowKey path, std::uint32_t first)
    : nextSequence(first), acknowledged(first), m_engine(engine), m_adapter(adapter), m_path(path)
{}

void Application::sendAt(std::uint32_t seq, std::uint8_t flags, const QByteArray &payload)
{
    const auto &[from, to] = m_path;
    const PacketBytes packet = buildTcpPacket(from.address, from.port, to.address, to.port, seq, acknowledgement,
                                              flags, reinterpret_cast<const std::uint8_t *>(payload.constData()),
                                              static_cast<std::size_t>(payload.size()));
    m_engine.handleTcpPacket(parsePacket(packet.data(), packet.size()));
}

void Application::send(std::uint8_t flags, const QByteArray &payload)
{
    const std::uint32_t seq = nextSequence;
    nextSequence += static_cast<std::uint32_t>(payload.size()) + ((flags & (tcpSyn | tcpFin)) ? 1 : 0);
    sendAt(seq, flags, payload);
}

bool Application::upload(const QByteArray &bytes)
{
    constexpr qsizetype segment = 1400;
    constexpr std::int32_t window = 65'535;
    const std::uint32_t first = nextSequence;
    const std::uint32_t end = first + static_cast<std::uint32_t>(bytes.size());
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (acknowledged != end) {
        while (nextSequence != end && static_cast<std::int32_t>(nextSequence - acknowledged) <= window - segment)
            send(tcpPsh | tcpAck, bytes.mid(nextSequence - first, segment));
        if (read(200ms))
            continue;
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        nextSequence = acknowledged; // it has found no room
    }
    return true;
}

bool Application::connect()
{
    send(tcpSyn);
    const std::optional<Reply> reply = next();
    if (!reply || reply->flags != (tcpSyn | tcpAck) || reply->ack != nextSequence)
        return false;
    acknowledged = reply->ack;
    acknowledgement = reply->seq + 1;
    send(tcpAck);
    return true;
}

bool Application::read(std::chrono::milliseconds timeout)
{
    const std::optional<Reply> reply = m_adapter.next(port(), timeout);
    if (!reply || (reply->flags & tcpRst))
        return false;
    acknowledged = reply->ack;
    if (reply->payload.isEmpty() && !(reply->flags & tcpFin))
        return true;
    if (reply->seq != acknowledgement) {
        ADD_FAILURE() << "number " << reply->seq << " instead of " << acknowledgement;
        return false;
    }
    received += reply->payload;
    isFinished = (reply->flags & tcpFin) != 0;
    acknowledgement += static_cast<std::uint32_t>(reply->payload.size()) + (isFinished ? 1 : 0);
    return true;
}

QByteArray Application::download(qsizetype size)
{
    while (received.size() < size && !isFinished && read())
        send(tcpAck);
    return received;
}

StreamProxy::StreamProxy(QByteArray reply)
    : m_reply(std::move(reply)), m_tcp([this](ProxyConnection &client, int) { serve(client); })
{}

void StreamProxy::serve(ProxyConnection &client)
{
    if (client.receive(3) != QByteArray::fromHex("050100"))
        return;
    client.send(QByteArray::fromHex("0500"));
    QByteArray request = client.receive(5);
    if (request.size() != 5)
        return;
    const int rest = request[3] == 1 ? 5 : request[3] == 4 ? 17 : static_cast<std::uint8_t>(request[4]) + 2;
    request += client.receive(rest);
    client.send(m_reply);
    const std::lock_guard lock(m_mutex);
    m_streams.push_back({client.take(), std::move(request)});
    m_changed.notify_all();
}

StreamProxy::Stream StreamProxy::take()
{
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, 15s, [this] { return !m_streams.empty(); }))
        return {};
    Stream stream = std::move(m_streams.front());
    m_streams.pop_front();
    return stream;
}

bool StreamProxy::takeNow()
{
    const std::lock_guard lock(m_mutex);
    if (m_streams.empty())
        return false;
    m_streams.pop_front();
    return true;
}

void TcpEngineTest::SetUp()
{
    NatTest::SetUp();
    m_services.proxyHost = L"127.0.0.1";
    m_services.tunnelIp = tunnel;
    m_services.completionPort = &m_port;
    m_services.chooseUpstream = [this](std::uint32_t address, std::uint16_t port) {
        const std::lock_guard lock(m_mutex);
        m_asked.push_back({address, port});
        return UpstreamDecision{.port = m_proxyPort};
    };
    m_services.nameOf = [this](const ConnectionKey &) { return m_name; };
    m_services.trySend = [this, token = m_token](const std::uint8_t *packet, std::size_t size) {
        return m_adapter.trySend(packet, size);
    };
    m_services.clock = [this] { return SteadyTime(std::chrono::nanoseconds(m_now)); };
    m_engine = std::make_unique<TcpEngine>(m_services);
    m_tokensOfEngine = m_token.use_count();
    useProxy(std::make_unique<StreamProxy>());
}

void TcpEngineTest::TearDown()
{
    stopFlowControl();
    m_engine->close();
    NatTest::TearDown();
    m_engine.reset();
    m_scripted.reset();
    m_proxy.reset();
}

void TcpEngineTest::useProxy(std::unique_ptr<StreamProxy> proxy)
{
    m_proxyPort = proxy->port();
    m_proxy = std::move(proxy);
}

void TcpEngineTest::useScript(ParallelProxy::Script script)
{
    m_scripted = std::make_unique<ParallelProxy>(std::move(script));
    m_proxyPort = m_scripted->port();
}

void TcpEngineTest::useAnswers(const QByteArray &method, const QByteArray &reply)
{
    useScript([=](ProxyConnection &client, int) {
        client.receive(greeting.size());
        client.send(method);
        if (!reply.isEmpty()) {
            client.receive(request.size());
            client.send(reply);
        }
        client.shutDown();
        client.waitForEnd();
    });
}

Application TcpEngineTest::application(std::uint16_t port, Endpoint to)
{
    return {*m_engine, m_adapter, {{guest, port}, to}};
}

std::pair<Application, Socket> TcpEngineTest::connectedApplication(std::uint16_t port)
{
    Application made = application(port);
    EXPECT_TRUE(made.connect());
    return {std::move(made), m_proxy->take().socket};
}

void TcpEngineTest::sendIpv6(std::uint16_t port, std::uint8_t flags, std::uint32_t seq, std::uint16_t toPort)
{
    const QByteArray addresses = QByteArray::fromHex("fd000000000000000000000000000001"
                                                     "20010db8000000000000000000000002");
    const Bytes both(addresses.begin(), addresses.end());
    Bytes segment;
    append16(segment, port);
    append16(segment, toPort);
    append32(segment, seq);
    append32(segment, 0);
    segment.insert(segment.end(), {0x50, flags, 0xff, 0xff, 0, 0, 0, 0});
    put16(segment, 16, referenceChecksum(concat({both, {0, 0, 0, 20, 0, 0, 0, 6}, segment})));
    const Bytes packet = concat({{0x60, 0, 0, 0, 0, 20, 6, 64}, both, segment});
    m_engine->handleTcpPacket(parsePacket(packet.data(), packet.size()));
}

void TcpEngineTest::startFlowControl()
{
    m_stopsFlowControl = false;
    m_flowControl = std::thread([this] {
        while (!m_stopsFlowControl) {
            WaitForSingleObject(m_engine->drainEvent(), 10);
            m_engine->drainWaiting([this] { return !m_stopsFlowControl; });
        }
    });
}

void TcpEngineTest::stopFlowControl()
{
    m_stopsFlowControl = true;
    if (m_flowControl.joinable())
        m_flowControl.join();
}

void TcpEngineTest::drain()
{
    m_engine->drainWaiting([] { return true; });
}

void TcpEngineTest::pass(std::chrono::seconds time)
{
    m_now += std::chrono::nanoseconds(time).count();
}

void TcpEngineTest::expectGone()
{
    EXPECT_TRUE(waitUntil([this] {
        return m_engine->connections() + m_engine->closingConnections() == 0 && m_port.inFlight() == 0
               && records() == 0;
    })) << m_engine->connections()
        << " connections, " << m_engine->closingConnections() << " closing, " << m_port.inFlight() << " in flight, "
        << records() << " records";
    EXPECT_EQ(m_engine->establishedConnections(), 0u);
}

void TcpEngineTest::expectLine(const QString &line)
{
    EXPECT_TRUE(waitUntil([&] { return m_log.lines().contains(line); })) << line.toStdString() << "\nbut:\n"
                                                                         << m_log.lines().join('\n').toStdString();
}

} // namespace ruvo::test
