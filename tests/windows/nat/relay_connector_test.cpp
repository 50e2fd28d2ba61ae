#include "windows/nat/nat_test.h"

#include "nat/relay_connector.h"
#include "windows/support/call_journal.h"

#include <future>
#include <memory>
#include <mutex>
#include <optional>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t destination = 0x5DB8D822; // 93.184.216.34
const QByteArray methodAccepted = QByteArray::fromHex("0500");
const QByteArray connected = QByteArray::fromHex("05000001000000000000");
const QByteArray addressRequest = QByteArray::fromHex("050100015db8d82201bb");
const QByteArray nameRequest = QByteArray::fromHex("050100030b") + "example.com" + QByteArray::fromHex("01bb");

/// A connector whose questions are answered by the test, with clients that have been accepted already.
class RelayConnectorTest : public NatTest
{
protected:
    void SetUp() override
    {
        NatTest::SetUp();
        m_connector = std::make_unique<RelayConnector>(
            L"127.0.0.1", m_stopEvent.get(), m_port, m_natTable,
            RelayConnector::Questions{
                .routeFor = [this](const TcpNatSession &) { return m_route; },
                .nameOf = [this](std::uint32_t address) { return address == destination ? m_name : "wrong address"; },
                .physicalInterface = [this] { return m_physicalInterface; },
            });
    }
    void TearDown() override
    {
        SetEvent(m_stopEvent.get());
        m_connector->stop();
        EXPECT_EQ(m_connector->relays(), 0u);
        NatTest::TearDown();
        m_connector.reset();
        m_proxy.reset();
    }

    void startProxy(ParallelProxy::Script script)
    {
        m_proxy = std::make_unique<ParallelProxy>(std::move(script));
        routeThrough(m_proxy->port());
    }
    void routeThrough(std::uint16_t proxyPort)
    {
        m_route = RelayRoute{.address = destination, .port = 443, .isDirect = false, .proxyPort = proxyPort};
    }
    void routeDirectlyTo(std::uint16_t port)
    {
        m_route = RelayRoute{.address = INADDR_LOOPBACK, .port = port, .isDirect = true, .proxyPort = 20808};
    }

    struct Client
    {
        Socket socket;
        TcpNatSessionPtr session;
    };
    /// A client of the tunnel, whose connection is relayed.
    Client relay(const std::function<void(Socket &mine)> &before = {})
    {
        StreamPair pair = streamPair();
        if (before)
            before(pair.mine);
        const std::uint16_t natPort = m_natTable.allocateNatPort(0x0A060701, ++m_clientPort, destination, 443);
        TcpNatSessionPtr session = m_natTable.accept(natPort);
        m_connector->relay(std::move(pair.theirs), session);
        return {std::move(pair.mine), std::move(session)};
    }
    /// The client is told with a reset, and its session has ended.
    void expectRefused(const Client &client)
    {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_TRUE(waitUntil([&] { return !client.session->active; }));
        EXPECT_EQ(m_connector->relays(), 0u);
    }
    void expectLine(const QString &line)
    {
        EXPECT_TRUE(waitUntil([&] { return m_log.lines().contains(line); }))
            << line.toStdString() << "\nin\n"
            << m_log.lines().join('\n').toStdString();
    }

    const KernelHandle m_stopEvent{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    TcpNatTable m_natTable;
    std::optional<RelayRoute> m_route;
    std::string m_name;
    std::uint32_t m_physicalInterface = 0;
    std::unique_ptr<ParallelProxy> m_proxy;
    std::unique_ptr<RelayConnector> m_connector;

private:
    std::uint16_t m_clientPort = 0;
};

/// Takes a request of `size` bytes after the greeting.
QByteArray takeRequest(ProxyConnection &client, qsizetype size)
{
    if (client.receive(3) != QByteArray::fromHex("050100"))
        return {};
    client.send(methodAccepted);
    return client.receive(size);
}

TEST_F(RelayConnectorTest, asksTheProxyAndJoinsBoth)
{
    startProxy([](ProxyConnection &proxied, int) {
        if (takeRequest(proxied, addressRequest.size()) != addressRequest)
            return;
        proxied.send(connected + "220 ready\n"); // the server's first words right behind the reply
        if (proxied.receive(5) == "hello")
            proxied.send("world");
        proxied.waitForEnd();
    });
    Client client = relay();
    EXPECT_EQ(receiveBytes(client.socket.get(), 10), "220 ready\n");
    ASSERT_TRUE(sendAll(client.socket.get(), "hello"));
    EXPECT_EQ(receiveBytes(client.socket.get(), 5), "world");
    EXPECT_EQ(m_connector->relays(), 1u);
    EXPECT_TRUE(client.session->active);
    client.socket.reset();
    EXPECT_TRUE(waitUntil([&] { return m_connector->relays() == 0; }));
    EXPECT_FALSE(client.session->active) << "its port is free after a while";
}

TEST_F(RelayConnectorTest, passesOnWhatTheClientSaidBeforeTheConnectionStood)
{
    startProxy([](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        proxied.send(connected);
        if (proxied.receive(5) == "early")
            proxied.send("got it");
        proxied.waitForEnd();
    });
    const Client client = relay([](Socket &mine) { sendAll(mine.get(), "early"); });
    EXPECT_EQ(receiveBytes(client.socket.get(), 6), "got it");
}

TEST_F(RelayConnectorTest, asksForTheNameThatItKnows)
{
    m_name = "example.com";
    startProxy([](ProxyConnection &proxied, int) {
        if (takeRequest(proxied, nameRequest.size()) == nameRequest)
            proxied.send(connected + "named");
        proxied.waitForEnd();
    });
    const Client client = relay();
    EXPECT_EQ(receiveBytes(client.socket.get(), 5), "named");
    EXPECT_EQ(m_proxy->connections(), 1);
}

TEST_F(RelayConnectorTest, asksForTheAddressOnAFreshConnectionWhenTheNameIsRefused)
{
    m_name = "example.com";
    startProxy([](ProxyConnection &proxied, int number) {
        if (number % 2 == 0 && takeRequest(proxied, nameRequest.size()) == nameRequest)
            proxied.send(QByteArray::fromHex("05040001000000000000"));
        else if (number % 2 == 1 && takeRequest(proxied, addressRequest.size()) == addressRequest)
            proxied.send(connected + "by address");
        proxied.waitForEnd();
    });
    for (int round = 0; round < 20; ++round) {
        const Client client = relay();
        EXPECT_EQ(receiveBytes(client.socket.get(), 10), "by address");
    }
    expectLine("WARNING SOCKS5 domain connection failed with reply: 4");
    EXPECT_EQ(m_proxy->connections(), 40);
}

TEST_F(RelayConnectorTest, resetsTheClientWhenTheProxyRefusesBoth)
{
    m_name = "example.com";
    startProxy([](ProxyConnection &proxied, int number) {
        takeRequest(proxied, number == 0 ? nameRequest.size() : addressRequest.size());
        proxied.send(QByteArray::fromHex("05050001000000000000"));
        proxied.waitForEnd();
    });
    expectRefused(relay());
    expectLine("WARNING SOCKS5 domain connection failed with reply: 5");
    expectLine("WARNING SOCKS5 connection failed with reply: 5");
    expectLine("WARNING [TCP-NAT] Failed to connect to SOCKS5 proxy");
}

TEST_F(RelayConnectorTest, resetsTheClientWhenThereIsNoProxy)
{
    routeThrough(closedPort());
    expectRefused(relay());
    expectLine("WARNING Failed to connect to proxy: 10061");
    expectLine("WARNING [TCP-NAT] Failed to connect to SOCKS5 proxy");
}

TEST_F(RelayConnectorTest, resetsAClientThatHasNoRoute)
{
    m_route = std::nullopt; // the daemon's own connection that came back, for one
    expectRefused(relay());
    EXPECT_TRUE(m_log.lines().isEmpty());
}

TEST_F(RelayConnectorTest, resetsAClientWhoseSocketWouldBlock)
{
    routeThrough(closedPort()); // which is not even tried
    const ImportRedirection<IMPORT(ioctlsocket)> failing(
        [next = ImportRedirection<IMPORT(ioctlsocket)>::current(), own = GetCurrentThreadId()](auto... arguments) {
            if (GetCurrentThreadId() == own)
                return next(arguments...);
            WSASetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        });
    expectRefused(relay());
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING [TCP-NAT] Failed to make the client socket non-blocking: 10055"});
}

TEST_F(RelayConnectorTest, stopsWhileTheProxyAcceptsAndNeverAnswers)
{
    std::atomic<int> greeted = 0;
    startProxy([&](ProxyConnection &proxied, int) {
        proxied.receive(3);
        ++greeted;
        proxied.waitForEnd();
    });
    std::vector<Client> clients;
    for (int i = 0; i < 300; ++i) // more than there are threads
        clients.push_back(relay());
    EXPECT_TRUE(waitUntil([&] { return greeted == 256; }));
    const auto begin = std::chrono::steady_clock::now();
    SetEvent(m_stopEvent.get());
    m_connector->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    for (const Client &client : clients) {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_FALSE(client.session->active);
    }
    expectRefused(relay());
}

TEST_F(RelayConnectorTest, doesNotConnectForAClientThatHasGone)
{
    std::atomic<int> requests = 0;
    startProxy([&](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        ++requests;
        proxied.send(connected);
        proxied.waitForEnd();
    });
    const Client closed = relay([](Socket &mine) { mine.reset(); });
    const Client reset = relay([](Socket &mine) { resetConnection(mine); });
    EXPECT_TRUE(waitUntil([&] { return !closed.session->active && !reset.session->active; }));
    const Client live = relay();
    EXPECT_TRUE(waitUntil([&] { return m_connector->relays() == 1; }));
    EXPECT_EQ(requests, 1) << "only for the one that is there";
}

TEST_F(RelayConnectorTest, dropsAllRelaysWhenItStops)
{
    startProxy([](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        proxied.send(connected);
        proxied.waitForEnd();
    });
    const Client client = relay();
    ASSERT_TRUE(waitUntil([&] { return m_connector->relays() == 1; }));
    SetEvent(m_stopEvent.get());
    m_connector->stop();
    expectLine("DEBUG [TCP-NAT] Closing 1 relay sessions");
    expectRefused(client);
}

/// Direct connections, to a server of the test's.
class DirectConnectTest : public RelayConnectorTest
{
protected:
    void SetUp() override
    {
        RelayConnectorTest::SetUp();
        m_proxy = std::make_unique<ParallelProxy>([](ProxyConnection &client, int) {
            if (client.receive(5) == "hello")
                client.send("direct");
            client.waitForEnd();
        });
        routeDirectlyTo(m_proxy->port());
        m_usingDirect = QStringLiteral("CRITICAL [TCP-NAT] Using DIRECT routing to 127.0.0.1:%1").arg(m_route->port);
    }
    void expectEcho(const Client &client)
    {
        ASSERT_TRUE(sendAll(client.socket.get(), "hello"));
        EXPECT_EQ(receiveBytes(client.socket.get(), 6), "direct");
    }
    /// Answers for the option that binds a socket to an interface.
    auto answeringInterface(std::function<int(const QByteArray &value)> answer)
    {
        return std::make_unique<ImportRedirection<IMPORT(setsockopt)>>(
            [answer, next = ImportRedirection<IMPORT(setsockopt)>::current()](SOCKET socket, int level, int option,
                                                                              const char *value, int size) {
                if (level == IPPROTO_IP && option == 31)
                    return answer(QByteArray(value, size));
                return next(socket, level, option, value, size);
            });
    }

    QString m_usingDirect;
};

TEST_F(DirectConnectTest, goesPastTheProxy)
{
    expectEcho(relay());
    EXPECT_EQ(m_log.lines(), QStringList{m_usingDirect});
}

TEST_F(DirectConnectTest, bindsToThePhysicalInterfaceInNetworkByteOrder)
{
    std::mutex mutex;
    QByteArray value;
    const auto redirection = answeringInterface([&](const QByteArray &set) {
        const std::lock_guard lock(mutex);
        value = set;
        return 0;
    });
    m_physicalInterface = 0x123;
    expectEcho(relay());
    const std::lock_guard lock(mutex);
    EXPECT_EQ(value.toHex(), "00000123");
    EXPECT_EQ(m_log.lines(),
              (QStringList{m_usingDirect, "DEBUG [TCP-NAT] Bound direct socket to physical interface 291"}));
}

TEST_F(DirectConnectTest, connectsEvenWhenItCannotBind)
{
    const auto redirection = answeringInterface([](const QByteArray &) {
        WSASetLastError(WSAEINVAL);
        return SOCKET_ERROR;
    });
    m_physicalInterface = 7;
    expectEcho(relay());
    EXPECT_EQ(
        m_log.lines(),
        (QStringList{m_usingDirect, "WARNING [TCP-NAT] Failed to bind to physical interface 7 - Error: 10022"}));
}

TEST_F(DirectConnectTest, doesNotBindWhileTheInterfaceIsNotKnown)
{
    std::atomic<int> calls = 0;
    const auto redirection = answeringInterface([&](const QByteArray &) { return ++calls, 0; });
    expectEcho(relay());
    EXPECT_EQ(calls, 0);
}

TEST_F(DirectConnectTest, resetsTheClientWhenTheDestinationRefuses)
{
    const std::uint16_t port = closedPort();
    routeDirectlyTo(port);
    expectRefused(relay());
    expectLine(
        QStringLiteral("WARNING [TCP-NAT] Failed to connect directly to 127.0.0.1:%1 - Error: 10061").arg(port));
}

TEST_F(DirectConnectTest, resetsTheClientWhenThereIsNoSocket)
{
    const ImportRedirection<IMPORT(WSASocketW)> none(
        [&, own = GetCurrentThreadId()](int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                                        DWORD flags) {
            if (GetCurrentThreadId() == own)
                return none.real(family, type, protocol, info, group, flags);
            WSASetLastError(WSAEMFILE);
            return INVALID_SOCKET;
        });
    expectRefused(relay());
    expectLine("WARNING [TCP-NAT] Failed to create direct socket: 10024");
}

TEST_F(DirectConnectTest, leavesThreadsForTheProxyWhereNobodyAnswers)
{
    std::atomic<int> calls = 0;
    const std::uint16_t silent = m_route->port;
    const ImportRedirection<IMPORT(connect)> unanswered([&](SOCKET socket, const sockaddr *address, int size) {
        if (ntohs(reinterpret_cast<const sockaddr_in *>(address)->sin_port) != silent)
            return unanswered.real(socket, address, size);
        ++calls;
        WSASetLastError(WSAEWOULDBLOCK);
        return SOCKET_ERROR;
    });
    std::vector<Client> clients;
    for (int i = 0; i < 300; ++i) // more than there are threads
        clients.push_back(relay());
    EXPECT_TRUE(waitUntil([&] { return calls >= 256; }));

    ParallelProxy proxy([](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        proxied.send(connected + "proxied");
        proxied.waitForEnd();
    });
    routeThrough(proxy.port());
    Client live = relay();
    EXPECT_EQ(receiveBytes(live.socket.get(), 7), "proxied");
    EXPECT_LT(calls, 300) << "and not behind all of them";
    live.socket.reset();
    EXPECT_TRUE(waitUntil([&] { return m_connector->relays() == 0; }));
}

} // namespace
} // namespace ruvo::test
