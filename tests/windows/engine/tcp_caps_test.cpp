// Every diagnostic of the engine that is capped, provoked more often than its cap allows: it appears exactly as often
// as that. The counters live as long as the process, so this has one of its own.

#include "windows/engine/tcp_engine_fixture.h"

#include "windows/support/call_journal.h"

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpCapsTest : public TcpEngineTest
{
protected:
    static constexpr DWORD someError = WSAENOBUFS;

    void openMany(int count)
    {
        for (int i = 0; i < count; ++i) {
            application(m_nextPort++).send(tcpSyn);
            expectGone();
        }
    }
    /// Connections whose every call of `function` fails.
    template<typename ImportType>
    void openManyWithout(FailsWith failsWith)
    {
        CallJournal journal(CallJournal::Threads::all);
        journal.watch<ImportType>(failsWith);
        journal.fail(ImportType::name, someError);
        openMany(12);
    }
    void openManyAgainst(const QByteArray &method, const QByteArray &reply = {})
    {
        useAnswers(method, reply);
        openMany(12);
        usePort(m_proxy->port());
    }

    void refuse()
    {
        // First: the function is asked for once in a process.
        openManyWithout<IMPORT(WSAIoctl)>(FailsWith::minusOne);
        openManyWithout<IMPORT(WSASocketW)>(FailsWith::minusOne);
        openManyWithout<IMPORT(bind)>(FailsWith::minusOne);
        openManyWithout<IMPORT(CreateIoCompletionPort)>(FailsWith::zero);
        openManyWithout<IMPORT(WSASend)>(FailsWith::minusOne);
        usePort(closedPort());
        openMany(12);
        openManyAgainst(QByteArray::fromHex("05ff"));
        openManyAgainst(accepted, QByteArray::fromHex("05010001000000000000"));
        m_name = std::string(506, 'n');
        openManyAgainst(accepted);
        m_name.clear();
    }

    /// A broadcast address is no place to connect to.
    void refuseConnectAtOnce()
    {
        EngineServices services = m_services;
        services.proxyHost = L"255.255.255.255";
        TcpEngine engine(services);
        for (int i = 0; i < 12; ++i)
            Application(engine, m_adapter, {{guest, m_nextPort++}, {server, 443}}).send(tcpSyn);
        EXPECT_TRUE(waitUntil([&] { return engine.connections() == 0 && m_port.inFlight() == 0; }));
    }

    void failSends()
    {
        for (int i = 0; i < 25; ++i) {
            auto [app, upstream] = connectedApplication(m_nextPort++);
            CallJournal journal(CallJournal::Threads::all);
            journal.watch<IMPORT(WSASend)>(FailsWith::minusOne);
            journal.fail("WSASend", someError);
            app.send(tcpPsh | tcpAck, "data");
            expectGone();
        }
    }

    /// Single segments both ways, each there before the next is sent; then old ones, and ones in the wrong order.
    void exchange()
    {
        auto [app, upstream] = connectedApplication(m_nextPort++);
        for (int i = 0; i < 25; ++i) {
            app.send(tcpPsh | tcpAck, "up");
            EXPECT_TRUE(app.read());
            EXPECT_EQ(receiveBytes(upstream.get(), 2), "up");
            EXPECT_TRUE(sendAll(upstream.get(), "down"));
            EXPECT_TRUE(app.read());
        }
        EXPECT_EQ(app.received.size(), 100);
        for (int i = 0; i < 25; ++i) {
            app.sendAt(app.nextSequence - 2, tcpPsh | tcpAck, "up");
            app.sendAt(app.nextSequence + 5, tcpPsh | tcpAck, "world");
            app.sendAt(app.nextSequence, tcpPsh | tcpAck, "hello");
            app.nextSequence += 10;
            EXPECT_TRUE(app.read());
            EXPECT_EQ(receiveBytes(upstream.get(), 10), "helloworld");
        }
        app.send(tcpRst);
        expectGone();
    }

    /// A proxy that does not read: 120 segments find no room.
    void fillUpload()
    {
        auto [app, upstream] = connectedApplication(m_nextPort++);
        const QByteArray segment = pattern(32'768);
        for (int refused = 0; refused < 120;) {
            app.sendAt(app.acknowledged, tcpPsh | tcpAck, segment);
            if (m_adapter.unread(app.port()) > 0)
                EXPECT_TRUE(app.read());
            else
                ++refused;
        }
        app.send(tcpRst);
        EXPECT_EQ(readToEnd(upstream.get()), Ending::Reset);
        expectGone();
    }

    /// An adapter that is full, again and again; each time the upstream is held up, and goes on.
    void fillDownload()
    {
        auto [app, upstream] = connectedApplication(m_nextPort++);
        const QByteArray bytes = pattern(250'000);
        for (int i = 0; i < 101; ++i) {
            m_adapter.setRoom(0);
            ASSERT_TRUE(sendAll(upstream.get(), bytes));
            ASSERT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; }));
            m_adapter.setRoom(std::nullopt);
            drain();
            app.received.clear();
            EXPECT_TRUE(app.download(bytes.size()) == bytes);
        }
        app.send(tcpRst);
        expectGone();
    }

    void receiveWrongly()
    {
        ConnectionKey key;
        key.sourcePort = 47'999;
        key.destinationIp = server;
        key.destinationPort = 443;
        const auto connection = std::make_shared<TcpConnection>(key, TcpSender::Opening{}, *m_engine);
        for (int i = 0; i < 12; ++i)
            connection->postReceive();
        connection->startUpstreamConnect();
        EXPECT_TRUE(waitUntil([&] { return connection->state() == 6 && m_port.inFlight() == 1; }));
        for (int i = 0; i < 12; ++i)
            connection->postReceive();
        connection->close(TcpConnection::Closing::Abortive);
        EXPECT_TRUE(waitUntil([&] { return m_port.inFlight() == 0; }));
    }

    std::uint16_t m_nextPort = 47000;
};

TEST_F(TcpCapsTest, eachLineAppearsAsOftenAsItsCap)
{
    refuse();
    refuseConnectAtOnce();
    failSends();
    exchange();
    fillUpload();
    fillDownload();
    receiveWrongly();

    const std::pair<const char *, int> wanted[] = {
        {"INFO [CLIENT-SYN] 10.9.9.9:", 10},
        {"CRITICAL [FAIL-1] Failed to create socket for ConnectEx - error: 10055", 10},
        {"CRITICAL [FAIL-2] Failed to associate TCP socket with IOCP, error: 10055 socket: ", 10},
        {"CRITICAL [FAIL-3] Failed to get ConnectEx function", 10},
        {"CRITICAL [FAIL-4] ConnectEx to proxy FAILED immediately - error: ", 10},
        {"CRITICAL [FAIL-5] ConnectEx to proxy FAILED on completion - socket error: 10061 ", 10},
        {"CRITICAL [FAIL-6] SOCKS5 auth REJECTED by proxy - bytes: 2 method: 255", 10},
        {"CRITICAL [FAIL-7] SOCKS5 CONNECT request REJECTED by proxy - bytes: 10 ver: 5 reply: 1 ", 10},
        {"WARNING Failed to bind socket: 10055", 10},
        {"WARNING WSASend greeting failed: 10055", 10},
        {"WARNING [BUFFER WARNING] Domain too long: \"nnn", 10},
        {"CRITICAL [DATA-ESTABLISHED] Connection reached ESTABLISHED state - port: ", 20},
        {"CRITICAL [DATA-UPLOAD] Queuing ", 20},
        {"CRITICAL [DATA-DOWNLOAD] Received ", 20},
        {"CRITICAL [SEND-PENDING] WSASend posted - port: ", 20},
        {"CRITICAL [SOCKS5-SEND] WSASend SUCCESS - port: ", 20},
        {"CRITICAL [SEND-FAIL] WSASend failed (not pending) - port: ", 20},
        {"CRITICAL [QUEUE-LARGE] sendQueue growing - xray not consuming? port: ", 20},
        {"WARNING [DUP-DROP] Dropping duplicate/old packet - port: ", 20},
        {"WARNING [OOO-BUFFERED] Buffering future packet - port: ", 20},
        {"WARNING [OOO-PROCESSED] Processing buffered packet - port: ", 20},
        {"WARNING [UPLOAD BACKPRESSURE] Queue full - port: ", 5 + 2},
        {"WARNING [BACKPRESSURE] Stopping recv - queue full", 5 + 2},
        {"WARNING [BACKPRESSURE] Resuming recv - queue drained: port=", 5 + 2},
        {"DEBUG [FLOW] Resumed connection #", 10 + 1},
        // Of the packets that are built, the application's among them.
        {"CRITICAL [WINDOW-DEBUG] ACK to ", 20},
        {"INFO [TCP-SYN+ACK] ", 5},
        {"WARNING [RECV-EARLY-EXIT] conn->socks is null! port: 47999", 10},
        {"WARNING [RECV-ALREADY-PENDING] Recv already in progress - port: 47999", 10},
    };
    int all = 0;
    for (const auto &[text, count] : wanted) {
        EXPECT_EQ(m_log.linesWith(text).size(), count) << text;
        all += text[0] == 'D' ? 0 : count;
    }
    // And not in other words.
    int said = 0;
    for (const QString &line : m_log.lines())
        said += line.startsWith("DEBUG") ? 0 : 1;
    EXPECT_EQ(said, all) << m_log.lines().join('\n').toStdString();
    EXPECT_TRUE(m_log.contains("INFO [CLIENT-SYN] 10.9.9.9:47000 -> 93.184.216.34:443 MSS: 1220 Options: "
                               "02 04 04 c4 01 03 03 08 01 01 04 02"));
}

} // namespace
} // namespace ruvo::test
