#include "windows/io/winsock_test.h"

namespace ruvo::test {

sockaddr_in loopbackAddress(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

sockaddr_in boundTo(SOCKET socket)
{
    sockaddr_in address{};
    int size = sizeof(address);
    getsockname(socket, reinterpret_cast<sockaddr *>(&address), &size);
    return address;
}

std::uint16_t portOf(SOCKET socket)
{
    return ntohs(boundTo(socket).sin_port);
}

Socket listeningSocket()
{
    Socket socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    const sockaddr_in address = loopbackAddress(0);
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(socket.get(), SOMAXCONN), 0);
    return socket;
}

std::uint16_t closedPort()
{
    // Bound while its number is read, so that nobody else has it; free right after.
    return portOf(listeningSocket().get());
}

std::pair<Socket, Socket> connectedSockets()
{
    const Socket listener = listeningSocket();
    Socket client(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    const sockaddr_in address = loopbackAddress(portOf(listener.get()));
    EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    Socket server(accept(listener.get(), nullptr, nullptr));
    return {std::move(client), std::move(server)};
}

} // namespace ruvo::test
