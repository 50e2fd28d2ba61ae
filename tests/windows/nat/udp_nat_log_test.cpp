// Lines that a neighbour can bring about without end: the first ten are written, and every hundredth.

#include "windows/nat/udp_nat_fixture.h"
#include "windows/support/import_redirection.h"

namespace ruvo::test {
namespace {

constexpr int times = 210;
constexpr int written = 12;

class UdpNatLogTest : public UdpNatRelayTest
{
protected:
    /// As many flows as there are times, each given up before the next one comes.
    void failFlows()
    {
        for (std::size_t i = 1; i <= times; ++i) {
            ASSERT_TRUE(forward(5000, "in vain"));
            ASSERT_TRUE(waitUntil([&] { return refused().size() == i; }));
        }
    }
    void expectCapped(const QString &line)
    {
        EXPECT_TRUE(waitUntil([&] { return m_log.linesWith(line).size() >= written; }));
        EXPECT_EQ(m_log.linesWith(line).size(), written) << line.toStdString();
    }
};

TEST_F(UdpNatLogTest, isShortAboutAProxyThatIsNotThere)
{
    const std::uint16_t nobody = closedPort();
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", nobody, nobody, m_port, {}));
    failFlows();
    expectCapped("WARNING [UDP-NAT] Failed to connect to SOCKS5 proxy: 10061");
    expectCapped("WARNING [UDP-NAT] Failed to create SOCKS5 UDP session for 93.184.216.34:443");
}

TEST_F(UdpNatLogTest, isShortAboutAProxyThatRefuses)
{
    useProxy({.reply = QByteArray::fromHex("05070001000000000000")});
    startRelay();
    failFlows();
    expectCapped("WARNING [UDP-NAT] UDP ASSOCIATE failed: 7");
}

TEST_F(UdpNatLogTest, isShortAboutAnswersWithoutAHeader)
{
    startRelay();
    const AssociationProxy::Datagram datagram = establish(5000);
    for (int i = 0; i < times; ++i) {
        m_proxy->answer(datagram, "broken");
        m_proxy->answer(datagram, header + "whole"); // so that no more wait than the socket has room for
        ASSERT_TRUE(takePacket());
    }
    expectCapped("WARNING [UDP-NAT] Failed to parse SOCKS5 UDP header");
}

TEST_F(UdpNatLogTest, isShortAboutDatagramsThatCannotBeSent)
{
    startRelay();
    establish(5000);
    const ImportRedirection<IMPORT(WSASend)> none([](auto...) {
        WSASetLastError(WSAENOBUFS);
        return SOCKET_ERROR;
    });
    for (int i = 0; i < times; ++i)
        EXPECT_FALSE(forward(5000, "x"));
    expectCapped("WARNING [UDP-NAT] Failed to send to relay: 10055");
}

} // namespace
} // namespace ruvo::test
