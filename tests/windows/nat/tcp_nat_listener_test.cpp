#include "windows/nat/tcp_nat_listener_fixture.h"

namespace ruvo::test {
namespace {

TEST_F(TcpNatListenerTest, saysWhereItListens)
{
    ASSERT_TRUE(start());
    EXPECT_NE(m_listenPort, 0);
    EXPECT_EQ(m_listener->listenPort(), m_listenPort);
    EXPECT_EQ(m_log.lines(),
              QStringList{QStringLiteral("WARNING [TCP-NAT] Listening on 127.0.0.1:%1").arg(m_listenPort)});
    EXPECT_EQ(m_port.inFlight(), 1) << "one accept";
}

TEST_F(TcpNatListenerTest, handsOverAConnectionWithItsSession)
{
    ASSERT_TRUE(start());
    const Client client = connectClient();
    const std::optional<Accepted> accepted = takeAccepted();
    ASSERT_TRUE(accepted);
    ASSERT_TRUE(accepted->session);
    EXPECT_EQ(accepted->session->natPort, client.natPort);
    EXPECT_EQ(accepted->session, m_listener->table().findByNatPort(client.natPort));
    EXPECT_TRUE(accepted->session->accepted);
    ASSERT_TRUE(sendAll(accepted->socket.get(), "hello"));
    EXPECT_EQ(receiveBytes(client.socket.get(), 5), "hello");
    EXPECT_EQ(shutdown(accepted->socket.get(), SD_SEND), 0) << "it is a whole connection to Windows";
    EXPECT_EQ(readToEnd(client.socket.get()), Ending::Proper);
}

TEST_F(TcpNatListenerTest, acceptsOneConnectionAfterAnother)
{
    ASSERT_TRUE(start());
    std::vector<Client> clients;
    for (int i = 0; i < 20; ++i)
        clients.push_back(connectClient());
    std::vector<std::uint16_t> expected;
    std::vector<std::uint16_t> natPorts;
    for (const Client &client : clients) {
        const std::optional<Accepted> accepted = takeAccepted();
        ASSERT_TRUE(accepted);
        expected.push_back(client.natPort);
        natPorts.push_back(accepted->session->natPort);
    }
    std::ranges::sort(natPorts); // two workers may hand over in any order
    EXPECT_EQ(natPorts, expected);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; })) << "one accept at a time";
}

TEST_F(TcpNatListenerTest, closesAConnectionFromAPortWithoutASession)
{
    ASSERT_TRUE(start());
    const Socket client = connectFrom(0);
    ASSERT_TRUE(client);
    const QString line = QStringLiteral("WARNING [TCP-NAT] No NAT session for NAT port %1").arg(portOf(client.get()));
    EXPECT_EQ(readToEnd(client.get()), Ending::Proper);
    EXPECT_TRUE(waitUntil([&] { return m_log.contains(line); }));
    EXPECT_EQ(acceptedCount(), 0u);
    connectClient();
    EXPECT_TRUE(takeAccepted()) << "the next one is served";
}

TEST_F(TcpNatListenerTest, saysTenTimesAndThenSeldomThatAPortHasNoSession)
{
    ASSERT_TRUE(start());
    for (int number = 0; number < 210; ++number) {
        const Socket client = connectFrom(0);
        ASSERT_TRUE(client);
        EXPECT_EQ(readToEnd(client.get()), Ending::Proper);
    }
    EXPECT_TRUE(waitUntil([this] { return m_log.linesWith("No NAT session").size() == cappedLines(210); }))
        << m_log.linesWith("No NAT session").size();
}

TEST_F(TcpNatListenerTest, closesAConnectionThatDidNotComeThroughTheTunnel)
{
    ASSERT_TRUE(start());
    Client client = connectClient();
    const std::optional<Accepted> accepted = takeAccepted();
    ASSERT_TRUE(accepted);
    // A local program can bind to any port, and so to one that stands for another's connection.
    const Socket intruder = connectFrom(client.natPort, listenAddress);
    ASSERT_TRUE(intruder);
    EXPECT_EQ(readToEnd(intruder.get()), Ending::Proper);
    EXPECT_TRUE(waitUntil([&] { return m_log.contains("WARNING [TCP-NAT] No NAT session for NAT port 0"); }));
    EXPECT_EQ(acceptedCount(), 0u);
    EXPECT_EQ(m_listener->table().findByNatPort(client.natPort), accepted->session);
}

TEST_F(TcpNatListenerTest, takesNobodyOnceItHasStoppedAccepting)
{
    ASSERT_TRUE(start());
    m_listener->stopAccepting();
    const Client client = connectClient();
    EXPECT_EQ(readToEnd(client.socket.get()), Ending::Proper);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; })) << "and no other accept is posted";
    EXPECT_EQ(acceptedCount(), 0u);
    EXPECT_EQ(m_log.lines().size(), 1);
}

TEST_F(TcpNatListenerTest, endsWithAnAcceptOutstanding)
{
    ASSERT_TRUE(start());
    const std::uint16_t natPort = connectClient().natPort;
    ASSERT_TRUE(takeAccepted());
    m_listener->shutdown();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    EXPECT_FALSE(connectFrom(0)) << "nobody listens";
    EXPECT_EQ(m_listener->table().findByNatPort(natPort), nullptr);
    EXPECT_EQ(m_listener->table().allocateNatPort(1, 2, 3, 4), 0);
    EXPECT_EQ(m_log.lines().size(), 1) << "an end is no failure: " << m_log.lines().join('\n').toStdString();
    m_listener->shutdown();
    m_listener->ensureAccepting();
    EXPECT_EQ(m_port.inFlight(), 0) << "nothing is started any more";
    EXPECT_EQ(m_listener.use_count(), 1) << "nobody else holds it";
}

TEST_F(TcpNatListenerTest, mayBeShutDownWhileClientsCome)
{
    ASSERT_TRUE(start());
    std::atomic<bool> stop = false;
    std::atomic<int> connected = 0;
    std::thread clients([&] {
        while (!stop)
            connected += connectFrom(0) ? 1 : 0;
    });
    EXPECT_TRUE(waitUntil([&] { return connected > 20 && m_log.linesWith("No NAT session").size() >= 10; }));
    m_listener->shutdown();
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 0; }));
    stop = true;
    clients.join();
    EXPECT_FALSE(m_log.contains("AcceptEx"));
}

TEST_F(TcpNatListenerTest, doesNothingBeforeItsStart)
{
    m_listener->ensureAccepting();
    m_listener->shutdown();
    EXPECT_EQ(m_port.inFlight(), 0);
    EXPECT_TRUE(m_log.lines().isEmpty());
}

} // namespace
} // namespace ruvo::test
