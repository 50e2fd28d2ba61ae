#pragma once

#include "windows/nat/nat_test.h"
#include "windows/socks5/recording_witness.h"

#include "nat/relay_connector.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

namespace ruvo::test {

/// A connector whose questions are answered by the test, with clients that have been accepted already.
class RelayConnectorTest : public NatTest
{
protected:
    static constexpr std::uint32_t destination = 0x5DB8D822; // 93.184.216.34
    inline static const QByteArray methodAccepted = QByteArray::fromHex("0500");
    inline static const QByteArray connected = QByteArray::fromHex("05000001000000000000");
    inline static const QByteArray addressRequest = QByteArray::fromHex("050100015db8d82201bb");
    inline static const QByteArray nameRequest =
        QByteArray::fromHex("050100030b") + "example.com" + QByteArray::fromHex("01bb");

    void SetUp() override
    {
        NatTest::SetUp();
        m_connector = makeConnector(L"127.0.0.1");
    }
    std::unique_ptr<RelayConnector> makeConnector(const std::wstring &proxyHost,
                                                  std::size_t limit = RelayConnector::maxConnections)
    {
        return std::make_unique<RelayConnector>(
            proxyHost, m_port, m_natTable,
            RelayConnector::Questions{
                .routeFor = [this](const TcpNatSession &) { return m_route; },
                .nameOf = [this](std::uint32_t address) { return address == destination ? m_name : "wrong address"; },
                .physicalInterface = [this] { return m_physicalInterface; },
                .proxyWitness = m_witness.function(),
            },
            limit);
    }
    void TearDown() override
    {
        m_connector->stop();
        EXPECT_EQ(m_connector->relays(), 0u);
        EXPECT_EQ(m_connector->waiting(), 0u);
        NatTest::TearDown();
        m_connector.reset();
        m_proxy.reset();
    }

    /// Takes a request of `size` bytes after the greeting.
    static QByteArray takeRequest(ProxyConnection &client, qsizetype size)
    {
        if (client.receive(3) != QByteArray::fromHex("050100"))
            return {};
        client.send(methodAccepted);
        return client.receive(size);
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
    /// Ends the last attempts of all that wait: so many a second, for the thread that does this has more to do.
    void expireAll()
    {
        std::size_t left = m_connector->waiting();
        while (left > 0) {
            left -= std::min(left, RelayConnector::maxExpiredAtOnce);
            m_connector->housekeeping(steadyNow() + RelayConnector::attemptTimeout);
            ASSERT_EQ(m_connector->waiting(), left);
        }
    }
    void expectLine(const QString &line)
    {
        EXPECT_TRUE(waitUntil([&] { return m_log.lines().contains(line); }))
            << line.toStdString() << "\nin\n"
            << m_log.lines().join('\n').toStdString();
    }

    TcpNatTable m_natTable;
    std::optional<RelayRoute> m_route;
    std::string m_name;
    std::uint32_t m_physicalInterface = 0;
    std::unique_ptr<ParallelProxy> m_proxy;
    RecordingWitness m_witness;
    std::unique_ptr<RelayConnector> m_connector;

private:
    std::uint16_t m_clientPort = 0;
};

} // namespace ruvo::test
