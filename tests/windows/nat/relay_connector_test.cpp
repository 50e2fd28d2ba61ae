#include "windows/nat/relay_connector_fixture.h"

#include "windows/support/import_redirection.h"

#include <atomic>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

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
    std::optional<ImportRedirection<IMPORT(ioctlsocket)>> failing;
    const Client client = relay([&](Socket &) {
        failing.emplace([](auto...) {
            WSASetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        });
    });
    failing.reset();
    expectRefused(client);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING [TCP-NAT] Failed to make the client socket non-blocking: 10055"});
}

TEST_F(RelayConnectorTest, resetsTheClientWhenTheNameIsTooLongAndTheAddressRefused)
{
    m_name = std::string(256, 'x');
    routeThrough(closedPort());
    expectRefused(relay());
    EXPECT_EQ(m_log.lines(),
              (QStringList{"WARNING Invalid domain name length", "WARNING Failed to connect to proxy: 10061",
                           "WARNING [TCP-NAT] Failed to connect to SOCKS5 proxy"}));
}

TEST_F(RelayConnectorTest, resetsTheClientWhenTheProxyHostIsNoAddress)
{
    m_connector = makeConnector(L"localhost");
    routeThrough(closedPort());
    expectRefused(relay());
    EXPECT_EQ(m_log.lines(), (QStringList{"WARNING Invalid proxy address: \"localhost\"",
                                          "WARNING [TCP-NAT] Failed to connect to SOCKS5 proxy"}));
}

TEST_F(RelayConnectorTest, refusesMoreClientsThanItMayHold)
{
    static_assert(RelayConnector::maxConnections == 16384);
    m_connector = makeConnector(L"127.0.0.1", 3);
    startProxy([](ProxyConnection &proxied, int number) {
        takeRequest(proxied, addressRequest.size());
        if (number == 0)
            proxied.send(connected);
        proxied.waitForEnd();
    });
    std::vector<Client> clients;
    clients.push_back(relay());
    ASSERT_TRUE(waitUntil([&] { return m_connector->relays() == 1; }));
    clients.push_back(relay());
    clients.push_back(relay());
    EXPECT_EQ(m_connector->waiting(), 2u) << "one has its relay";
    const Client fourth = relay();
    EXPECT_EQ(readToEnd(fourth.socket.get()), Ending::Reset);
    EXPECT_FALSE(fourth.session->active);
    expectLine("WARNING [TCP-NAT] Too many connections, refusing one");
    clients.erase(clients.begin());
    ASSERT_TRUE(waitUntil([&] { return m_connector->relays() == 0; }));
    clients.push_back(relay());
    EXPECT_EQ(m_connector->waiting(), 3u) << "one may come for one that has gone";
}

TEST_F(RelayConnectorTest, saysAtWhichStepTheProxyFails)
{
    const struct
    {
        QByteArray method;
        QByteArray reply;
        QString line;
    } failures[] = {
        {"", "", "WARNING Failed to receive SOCKS5 response"},
        {QByteArray::fromHex("0502"), "", "WARNING SOCKS5 authentication failed"},
        {methodAccepted, "", "WARNING Failed to receive connection response"},
        {methodAccepted, connected.first(9), "WARNING Failed to receive connection response"},
        {methodAccepted, QByteArray::fromHex("05020001000000000000"),
         "WARNING SOCKS5 connection failed with reply: 2"},
    };
    for (const auto &failure : failures) {
        m_log.clear();
        startProxy([&](ProxyConnection &proxied, int) {
            proxied.receive(3);
            proxied.send(failure.method);
            if (failure.method != methodAccepted)
                return;
            proxied.receive(addressRequest.size());
            proxied.send(failure.reply);
        });
        expectRefused(relay());
        EXPECT_EQ(m_log.lines(), (QStringList{failure.line, "WARNING [TCP-NAT] Failed to connect to SOCKS5 proxy"}));
    }
}

TEST_F(RelayConnectorTest, saysTenTimesAndThenSeldomThatAProxyFails)
{
    constexpr int clients = 210;
    m_name = "example.com";
    startProxy([](ProxyConnection &proxied, int) {
        proxied.receive(3);
        proxied.send(QByteArray::fromHex("0502"));
        proxied.waitForEnd();
    });
    for (int number = 0; number < clients; ++number)
        expectRefused(relay());
    // Each by name and by address.
    EXPECT_EQ(m_log.linesWith("SOCKS5 authentication failed").size(), 2 * cappedLines(clients));
    EXPECT_EQ(m_log.linesWith("[TCP-NAT] Failed to connect to SOCKS5 proxy").size(), cappedLines(clients));

    m_log.clear();
    m_name = std::string(256, 'x');
    routeThrough(closedPort());
    for (int number = 0; number < clients; ++number)
        expectRefused(relay());
    EXPECT_EQ(m_log.linesWith("Invalid domain name length").size(), cappedLines(clients));
    EXPECT_EQ(m_log.linesWith("Failed to connect to proxy: 10061").size(), cappedLines(clients));
}

TEST_F(RelayConnectorTest, saysThatTheWayOutCannotBePutOnThePort)
{
    routeThrough(closedPort()); // which is not even tried
    std::optional<ImportRedirection<IMPORT(CreateIoCompletionPort)>> failing;
    const Client client = relay([&](Socket &) {
        failing.emplace([](auto...) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return HANDLE{};
        });
    });
    failing.reset();
    expectRefused(client);
    expectLine("WARNING [TCP-NAT-IOCP] Failed to associate dest socket with IOCP: 8");
}

TEST_F(RelayConnectorTest, triesTheAddressWhenTheNameTakesTooLong)
{
    m_name = "example.com";
    std::atomic<bool> isAsked = false;
    startProxy([&](ProxyConnection &proxied, int number) {
        takeRequest(proxied, number == 0 ? nameRequest.size() : addressRequest.size());
        if (number > 0)
            proxied.send(connected + "by address");
        isAsked = true;
        proxied.waitForEnd();
    });
    const Client client = relay();
    ASSERT_TRUE(waitUntil([&] { return isAsked.load(); }));
    m_connector->housekeeping(steadyNow() + RelayConnector::attemptTimeout);
    EXPECT_EQ(receiveBytes(client.socket.get(), 10), "by address");
    expectLine("WARNING Failed to receive domain connection response");
}

TEST_F(RelayConnectorTest, resetsAClientWhoseRelayHasNoRoomForItsBuffers)
{
    startProxy([](ProxyConnection &proxied, int) {
        takeRequest(proxied, addressRequest.size());
        proxied.send(connected);
        proxied.waitForEnd();
    });
    std::atomic<int> refused = 0;
    const ImportRedirection<IMPORT(VirtualAlloc)> none(
        [&, own = GetCurrentThreadId(), next = ImportRedirection<IMPORT(VirtualAlloc)>::current()](
            void *address, SIZE_T size, DWORD type, DWORD protection) -> void * {
            if (GetCurrentThreadId() == own || size != 0x10000)
                return next(address, size, type, protection);
            ++refused;
            return nullptr;
        });
    expectRefused(relay());
    EXPECT_EQ(refused, 1);
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

TEST_F(RelayConnectorTest, asksForNoAddressWhenTheClientHasGoneMeanwhile)
{
    m_name = "example.com";
    std::atomic<bool> isAsked = false;
    std::atomic<bool> hasGone = false;
    startProxy([&](ProxyConnection &proxied, int) {
        takeRequest(proxied, nameRequest.size());
        isAsked = true;
        EXPECT_TRUE(waitUntil([&] { return hasGone.load(); }));
        proxied.send(QByteArray::fromHex("05040001000000000000"));
        proxied.waitForEnd();
    });
    Client client = relay();
    ASSERT_TRUE(waitUntil([&] { return isAsked.load(); }));
    resetConnection(client.socket);
    hasGone = true;
    EXPECT_TRUE(waitUntil([&] { return !client.session->active; }));
    EXPECT_EQ(m_connector->waiting(), 0u);
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_FALSE(m_log.contains("[TCP-NAT] Failed to connect to SOCKS5 proxy"));
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
    m_connector->stop();
    expectLine("DEBUG [TCP-NAT] Closing 1 relay sessions");
    expectRefused(client);
}

} // namespace
} // namespace ruvo::test
