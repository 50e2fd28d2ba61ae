#include "windows/socks5/mute_port.h"

#include "windows/io/winsock_test.h"

namespace ruvo::test {

MutePort::MutePort() : m_listener(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED))
{
    const sockaddr_in any = loopbackAddress(0);
    EXPECT_EQ(bind(m_listener.get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)), 0);
    EXPECT_EQ(listen(m_listener.get(), 1), 0);
    m_number = portOf(m_listener.get());
    const sockaddr_in address = loopbackAddress(m_number);
    for (int i = 0; i < 8; ++i) {
        Socket &socket = m_queue.emplace_back(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0));
        u_long on = 1;
        ioctlsocket(socket.get(), static_cast<long>(FIONBIO), &on);
        connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    }
}

} // namespace ruvo::test
