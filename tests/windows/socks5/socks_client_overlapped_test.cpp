// Sockets that others drive through a completion port, and datagrams to the relay.

#include "windows/socks5/socks_client_test.h"

#include "support/qt_printers.h"
#include "windows/support/call_journal.h"

#include <gmock/gmock.h>

namespace ruvo::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class SocksClientOverlapped : public WinsockTest
{
protected:
    template<typename T>
    static T option(SOCKET socket, int level, int name)
    {
        T value{};
        int size = sizeof(value);
        EXPECT_EQ(getsockopt(socket, level, name, reinterpret_cast<char *>(&value), &size), 0);
        return value;
    }

    static Socket datagramServer()
    {
        Socket socket(WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, 0));
        const sockaddr_in address = loopbackAddress(0);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        const DWORD timeout = 10000;
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
        return socket;
    }
    static QByteArray receive(const Socket &socket)
    {
        QByteArray bytes(70000, '\0');
        const int received = recv(socket.get(), bytes.data(), static_cast<int>(bytes.size()), 0);
        return received < 0 ? QByteArray("(nothing)") : bytes.first(received);
    }

    SocksClient m_client{L"127.0.0.1", 1080};
};

TEST_F(SocksClientOverlapped, isBoundToAnyAddressAsConnectExWantsIt)
{
    ASSERT_TRUE(m_client.createOverlappedTcpSocket());
    const sockaddr_in bound = boundTo(m_client.tcpSocket());
    EXPECT_EQ(bound.sin_addr.s_addr, 0u);
    EXPECT_NE(bound.sin_port, 0);
    EXPECT_EQ(option<int>(m_client.tcpSocket(), IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST_F(SocksClientOverlapped, asksForOneMebibyteEachWayBeforeAnythingElse)
{
    CallJournal journal;
    journal.watch<IMPORT(WSASocketW)>(FailsWith::minusOne);
    journal.watch<IMPORT(bind)>(FailsWith::minusOne);
    std::vector<std::string> sizes;
    const ImportRedirection<IMPORT(setsockopt)> set(
        [&](SOCKET, int level, int name, const char *value, int size) -> int {
            int number = 0;
            std::memcpy(&number, value, std::min(sizeof(number), static_cast<std::size_t>(size)));
            sizes.push_back(std::to_string(level) + ' ' + std::to_string(name) + ' ' + std::to_string(number));
            return 0;
        });
    ASSERT_TRUE(m_client.createOverlappedTcpSocket());
    EXPECT_EQ(sizes, (std::vector<std::string>{"65535 4097 1048576", "65535 4098 1048576"}));
    // Overlapped, and not inherited by children.
    EXPECT_EQ(journal.lines().at(0), "WSASocketW(2, 1, 6, null, 0, 0x81)");
}

TEST_F(SocksClientOverlapped, doesNotHoldSmallSegmentsBackOnTheControlConnection)
{
    ASSERT_TRUE(m_client.createOverlappedControlSocket());
    EXPECT_NE(option<int>(m_client.tcpSocket(), IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_NE(boundTo(m_client.tcpSocket()).sin_port, 0);
}

TEST_F(SocksClientOverlapped, isBoundToLoopbackForARelayOnThisMachineOnly)
{
    for (const std::uint32_t relay : {0x7F000001u, 0x7F123456u}) {
        ASSERT_TRUE(m_client.createUdpSocket(relay, 4000));
        EXPECT_EQ(boundTo(m_client.udpSocket()).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
        EXPECT_TRUE(m_client.isUdpReady());
    }
    for (const std::uint32_t relay : {0xC0000209u, 0x7E000001u, 0x80000001u}) {
        ASSERT_TRUE(m_client.createUdpSocket(relay, 4000));
        EXPECT_EQ(boundTo(m_client.udpSocket()).sin_addr.s_addr, 0u);
    }
    m_client.close();
    EXPECT_FALSE(m_client.isUdpReady());
    EXPECT_EQ(m_client.udpSocket(), INVALID_SOCKET);
}

TEST_F(SocksClientOverlapped, sendsEachDatagramWithItsHeaderToTheRelay)
{
    const Socket relay = datagramServer();
    ASSERT_TRUE(m_client.createUdpSocket(INADDR_LOOPBACK, portOf(relay.get())));
    const std::uint8_t payload[] = {'h', 'i'};
    EXPECT_EQ(m_client.sendUdpIPv4(payload, 0x08080404, 53), 12);
    EXPECT_EQ(receive(relay), QByteArray::fromHex("00000001080804040035") + "hi");

    socks5::Ipv6Address ipv6{};
    ipv6[0] = 0x20;
    ipv6[15] = 0x01;
    EXPECT_EQ(m_client.sendUdpIPv6(payload, ipv6, 0x1234), 24);
    EXPECT_EQ(receive(relay), QByteArray::fromHex("00000004200000000000000000000000000000011234") + "hi");

    EXPECT_EQ(m_client.sendUdpIPv4({}, 0x08080404, 53), 10);
    EXPECT_EQ(receive(relay), QByteArray::fromHex("00000001080804040035"));
}

TEST_F(SocksClientOverlapped, givesBackWhatSendtoSaid)
{
    ASSERT_TRUE(m_client.createUdpSocket(INADDR_LOOPBACK, 4000));
    const std::vector<std::uint8_t> tooLarge(66000);
    EXPECT_EQ(m_client.sendUdpIPv4(tooLarge, 0x08080404, 53), SOCKET_ERROR);
    m_client.close();
    EXPECT_EQ(m_client.sendUdpIPv4({}, 0x08080404, 53), SOCKET_ERROR);
}

} // namespace
} // namespace ruvo::test
