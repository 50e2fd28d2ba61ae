#include "transport/timed_io.h"

namespace ruvo {

namespace {

// A fresh connection can always be written to: asking for that, too, would end the first wait for an answer at once.
constexpr long readingEvents = FD_READ | FD_CLOSE;
constexpr long writingEvents = FD_WRITE | FD_CLOSE;

} // namespace

int connectWithin(SocketWait &wait, SOCKET socket, const sockaddr_in &address, SocketWait::Clock::time_point deadline)
{
    if (!wait.attach(socket, FD_CONNECT))
        return WSAGetLastError();
    if (connect(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        int error = WSAGetLastError();
        if (error == WSAEWOULDBLOCK)
            error = wait.wait(socket, deadline);
        if (error != NO_ERROR)
            return error;
    }
    return wait.attach(socket, readingEvents) ? NO_ERROR : WSAGetLastError();
}

bool sendWithin(SocketWait &wait, SOCKET socket, socks5::ByteView bytes, SocketWait::Clock::time_point deadline)
{
    bool waitsForRoom = false;
    while (!bytes.empty()) {
        const int sent =
            send(socket, reinterpret_cast<const char *>(bytes.data()), static_cast<int>(bytes.size()), 0);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (WSAGetLastError() != WSAEWOULDBLOCK)
            return false;
        if (!waitsForRoom && !wait.attach(socket, writingEvents))
            return false;
        waitsForRoom = true;
        if (wait.wait(socket, deadline) != NO_ERROR)
            return false;
    }
    return !waitsForRoom || wait.attach(socket, readingEvents);
}

std::size_t receiveWithin(SocketWait &wait, SOCKET socket, std::span<std::uint8_t> room,
                          SocketWait::Clock::time_point deadline)
{
    std::size_t total = 0;
    while (total < room.size()) {
        const int received =
            recv(socket, reinterpret_cast<char *>(room.data() + total), static_cast<int>(room.size() - total), 0);
        if (received > 0)
            total += static_cast<std::size_t>(received);
        else if (received == 0 || WSAGetLastError() != WSAEWOULDBLOCK || wait.wait(socket, deadline) != NO_ERROR)
            break;
    }
    return total;
}

} // namespace ruvo
