// Bytes of an established connection, both ways.

#include "windows/engine/tcp_engine_fixture.h"

#include <future>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpDataTest : public TcpEngineTest
{
protected:
    static constexpr qsizetype much = 3'000'000;

    /// What the upstream receives, read on a thread of its own.
    static std::future<QByteArray> receiving(const Socket &socket, qsizetype size)
    {
        return std::async(std::launch::async, [&socket, size] { return receiveBytes(socket.get(), size); });
    }
    static std::future<bool> sending(const Socket &socket, const QByteArray &bytes)
    {
        return std::async(std::launch::async, [&socket, bytes] { return sendAll(socket.get(), bytes); });
    }
};

TEST_F(TcpDataTest, goesUpWhole)
{
    auto [app, upstream] = connectedApplication(42001);
    const QByteArray bytes = pattern(much);
    auto got = receiving(upstream, much);
    EXPECT_TRUE(app.upload(bytes));
    EXPECT_TRUE(got.get() == bytes);
}

TEST_F(TcpDataTest, comesDownWhole)
{
    auto [app, upstream] = connectedApplication(42002);
    startFlowControl();
    const QByteArray bytes = pattern(much);
    auto sent = sending(upstream, bytes);
    EXPECT_TRUE(app.download(much) == bytes);
    EXPECT_TRUE(sent.get());
}

TEST_F(TcpDataTest, comesDownWholeThroughAnAdapterThatIsOftenFull)
{
    auto [app, upstream] = connectedApplication(42003);
    startFlowControl();
    const QByteArray bytes = pattern(much);
    auto sent = sending(upstream, bytes);
    // Each packet that is read makes room for three more.
    m_adapter.setRoom(10);
    std::size_t room = 0;
    while (app.received.size() < much) {
        m_adapter.setRoom(room++ % 50 == 0 ? 150 : 3);
        ASSERT_TRUE(app.read());
    }
    EXPECT_TRUE(app.received == bytes);
    EXPECT_TRUE(sent.get());
}

TEST_F(TcpDataTest, goesBothWaysAtOnce)
{
    auto [app, upstream] = connectedApplication(42004);
    startFlowControl();
    const QByteArray up = pattern(much, 1);
    const QByteArray down = pattern(much, 2);
    auto got = receiving(upstream, much);
    auto sent = sending(upstream, down);
    EXPECT_TRUE(app.upload(up));
    EXPECT_TRUE(app.download(much) == down);
    EXPECT_TRUE(got.get() == up);
    EXPECT_TRUE(sent.get());
}

TEST_F(TcpDataTest, comesDownInSegments)
{
    auto [app, upstream] = connectedApplication(42005);
    const QByteArray bytes = pattern(4000);
    ASSERT_TRUE(sendAll(upstream.get(), bytes));
    for (const qsizetype size : {1460, 1460, 1080}) {
        const std::optional<Reply> reply = app.next();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->flags, tcpPsh | tcpAck);
        EXPECT_EQ(reply->seq, app.acknowledgement);
        EXPECT_EQ(reply->ack, app.nextSequence);
        EXPECT_EQ(reply->payload.size(), size);
        app.received += reply->payload;
        app.acknowledgement += static_cast<std::uint32_t>(size);
    }
    EXPECT_EQ(app.received, bytes);
}

TEST_F(TcpDataTest, thatIsOutOfOrderIsAcknowledgedTogether)
{
    auto [app, upstream] = connectedApplication(42006);
    const std::uint32_t first = app.nextSequence;
    app.sendAt(first + 6, tcpPsh | tcpAck, "world");
    EXPECT_EQ(m_adapter.unread(42006), 0u);
    app.sendAt(first, tcpPsh | tcpAck, "hello ");
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->flags, tcpAck);
    EXPECT_EQ(reply->ack, first + 11);
    EXPECT_EQ(m_adapter.unread(42006), 0u);
    EXPECT_EQ(receiveBytes(upstream.get(), 11), "hello world");
    app.sendAt(first, tcpPsh | tcpAck, "hello "); // once more, late
    EXPECT_EQ(m_adapter.unread(42006), 0u);
    app.nextSequence = first + 11;
    app.send(tcpPsh | tcpAck, "!");
    EXPECT_EQ(receiveBytes(upstream.get(), 1), "!");
}

TEST_F(TcpDataTest, withAWrongChecksumDoesNotExist)
{
    auto [app, upstream] = connectedApplication(42007);
    PacketBytes packet = buildTcpPacket(guest, 42007, server, 443, app.nextSequence, app.acknowledgement,
                                        tcpPsh | tcpAck, reinterpret_cast<const std::uint8_t *>("wrong"), 5);
    packet.back() ^= 1;
    m_engine->handleTcpPacket(parsePacket(packet.data(), packet.size()));
    EXPECT_EQ(m_adapter.unread(42007), 0u);
    app.send(tcpPsh | tcpAck, "right");
    EXPECT_EQ(receiveBytes(upstream.get(), 5), "right");
}

TEST_F(TcpDataTest, thatFindsNoRoomUpstreamIsTakenLater)
{
    auto [app, upstream] = connectedApplication(42008);
    const QByteArray bytes = pattern(24 * 1024 * 1024); // more than all buffers on the way
    constexpr qsizetype segment = 16'384;
    qsizetype done = 0;
    const auto sendNext = [&] {
        app.sendAt(app.acknowledged, tcpPsh | tcpAck, bytes.mid(done, segment));
        if (m_adapter.unread(42008) == 0)
            return false;
        EXPECT_TRUE(app.read());
        done += segment;
        return true;
    };
    // A chunk that the proxy has taken makes room once more: refused for good means for a while.
    const auto isStuck = [&] { return !waitUntil([&] { return done >= bytes.size() || sendNext(); }, 500ms); };
    while (done < bytes.size() && !isStuck()) {}
    ASSERT_LT(done, bytes.size());
    EXPECT_GT(done, 2 * 1024 * 1024);
    auto got = receiving(upstream, bytes.size());
    while (done < bytes.size())
        ASSERT_TRUE(waitUntil(sendNext));
    EXPECT_TRUE(got.get() == bytes);
}

TEST_F(TcpDataTest, thatWaitsHoldsUpTheUpstreamUntilThereIsRoom)
{
    auto [app, upstream] = connectedApplication(42009);
    m_adapter.setRoom(0);
    const QByteArray bytes = pattern(24'000'000);
    auto sent = sending(upstream, bytes);
    EXPECT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; })) << "it is still receiving";
    EXPECT_EQ(sent.wait_for(100ms), std::future_status::timeout);
    m_adapter.setRoom(std::nullopt);
    startFlowControl();
    EXPECT_TRUE(app.download(bytes.size()) == bytes);
    EXPECT_TRUE(sent.get());
}

// An application that does not scale its window: no more than 65,535 bytes are on their way to it.
TEST_F(TcpDataTest, beyondTheApplicationsWindowWaitsForItsAcknowledgement)
{
    Application app = application(42010);
    const Bytes syn = referenceTcpPacket({guest, 42010, server, 443}, 1000, 0, tcpSyn, {}, {}, 1);
    m_engine->handleTcpPacket(parsePacket(syn.data(), syn.size()));
    const std::optional<Reply> reply = app.next();
    ASSERT_TRUE(reply);
    app.nextSequence = 1001;
    app.acknowledgement = reply->seq + 1;
    app.send(tcpAck);
    const Socket upstream = m_proxy->take().socket;
    const QByteArray bytes = pattern(200'000);
    auto sent = sending(upstream, bytes);
    while (app.received.size() + 1460 <= 65'535)
        ASSERT_TRUE(app.read());
    EXPECT_TRUE(
        waitUntil([&] { return m_adapter.unread(42010) == 0 && sent.wait_for(0s) == std::future_status::ready; }));
    drain();
    EXPECT_EQ(m_adapter.unread(42010), 0u);
    EXPECT_EQ(WaitForSingleObject(m_engine->drainEvent(), 0), DWORD{WAIT_TIMEOUT});
    app.send(tcpAck);
    EXPECT_EQ(WaitForSingleObject(m_engine->drainEvent(), 0), WAIT_OBJECT_0);
    startFlowControl();
    EXPECT_TRUE(app.download(bytes.size()) == bytes);
}

} // namespace
} // namespace ruvo::test
