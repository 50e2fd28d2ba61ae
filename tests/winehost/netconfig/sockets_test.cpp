#include "netconfig/netconfig_test.h"

#include "namespace/linux_command.h"

namespace ruvo::test {

namespace {

class SocketsTest : public NetconfigTest
{
protected:
    void SetUp() override
    {
        NetconfigTest::SetUp();
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
        ASSERT_EQ(linuxOutput("ip address add 10.9.0.1/30 dev test && ip route add 0.0.0.0/1 dev test && "
                              "ip route add 128.0.0.0/1 dev test && ip neighbour replace 192.0.2.1 "
                              "lladdr 02:00:00:00:00:01 dev uplink"),
                  "");
    }
    void TearDown() override
    {
        linuxOutput("ip neighbour delete 192.0.2.1 dev uplink");
        WSACleanup();
        NetconfigTest::TearDown();
    }

    /// A connection that nobody answers: its own end tells which way it tries.
    static std::string wayOf(bool isBoundFirst, NET_IFINDEX index)
    {
        const SOCKET socket = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        if (isBoundFirst) { // as ConnectEx wants it
            EXPECT_EQ(bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        }
        if (index != 0) {
            const DWORD option = htonl(index);
            EXPECT_EQ(
                setsockopt(socket, IPPROTO_IP, IP_UNICAST_IF, reinterpret_cast<const char *>(&option), sizeof option),
                0);
        }
        u_long on = 1;
        ioctlsocket(socket, static_cast<long>(FIONBIO), &on);
        address.sin_addr.s_addr = networkOrder("203.0.113.10");
        address.sin_port = htons(80);
        EXPECT_EQ(connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        const std::string ends = linuxOutput("ss -Htn state syn-sent dst 203.0.113.10 | awk '{print $3}'");
        closesocket(socket);
        return ends.substr(0, ends.rfind(':'));
    }
};

} // namespace

TEST_F(SocketsTest, leaveThroughTheInterfaceThatTheyAreToldWhateverTheRoutesSay)
{
    const NET_IFINDEX uplink = indexOf("uplink");
    EXPECT_EQ(wayOf(false, 0), "10.9.0.1");
    EXPECT_EQ(wayOf(false, uplink), "192.0.2.2%uplink");
    EXPECT_EQ(wayOf(true, uplink), "192.0.2.2%uplink");
}

} // namespace ruvo::test
