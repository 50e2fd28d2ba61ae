#include "windows/nat/relay_connector_fixture.h"
#include "windows/socks5/mute_port.h"

#include "windows/support/import_redirection.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

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

TEST_F(DirectConnectTest, saysTenTimesAndThenSeldomThatItCannotBind)
{
    const auto redirection = answeringInterface([](const QByteArray &) {
        WSASetLastError(WSAEINVAL);
        return SOCKET_ERROR;
    });
    m_physicalInterface = 7;
    routeDirectlyTo(closedPort());
    for (int number = 0; number < 210; ++number)
        relay();
    EXPECT_TRUE(waitUntil([this] { return m_connector->waiting() == 0; }));
    EXPECT_EQ(m_log.linesWith("Failed to bind to physical interface").size(), cappedLines(210));
    EXPECT_EQ(m_log.linesWith("Failed to connect directly to").size(), cappedLines(210));
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
    std::optional<ImportRedirection<IMPORT(WSASocketW)>> none;
    const Client client = relay([&](Socket &) {
        none.emplace([](auto...) {
            WSASetLastError(WSAEMFILE);
            return INVALID_SOCKET;
        });
    });
    none.reset();
    expectRefused(client);
    expectLine("WARNING [TCP-NAT] Failed to create direct socket: 10024");
}

TEST_F(DirectConnectTest, thatNobodyAnswersHoldsUpNobodyAndIsGivenUpAfterTenSeconds)
{
    const MutePort mute;
    routeDirectlyTo(mute.number());
    std::vector<Client> clients;
    for (int i = 0; i < 300; ++i)
        clients.push_back(relay());
    EXPECT_EQ(m_connector->waiting(), clients.size());
    routeDirectlyTo(m_proxy->port());
    expectEcho(relay());
    expireAll();
    for (const Client &client : clients) {
        EXPECT_EQ(readToEnd(client.socket.get()), Ending::Reset);
        EXPECT_FALSE(client.session->active);
    }
    const QString line = QStringLiteral("WARNING [TCP-NAT] Failed to connect directly to 127.0.0.1:%1 - Error: 10060")
                             .arg(mute.number());
    EXPECT_EQ(m_log.linesWith(line).size(), cappedLines(300));
    EXPECT_EQ(m_log.linesWith("Using DIRECT routing").size(), cappedLines(301));
}

} // namespace
} // namespace ruvo::test
