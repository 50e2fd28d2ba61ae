#include "io/timed_io.h"

namespace ruvo {

namespace {

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
    return wait.detach(socket) ? NO_ERROR : WSAGetLastError();
}

bool sendWithin(SocketWait &wait, SOCKET socket, std::span<const std::uint8_t> bytes,
                SocketWait::Clock::time_point deadline)
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
    return !waitsForRoom || wait.detach(socket);
}

std::size_t receiveWithin(SocketWait &wait, SOCKET socket, std::span<std::uint8_t> room,
                          SocketWait::Clock::time_point deadline)
{
    std::size_t total = 0;
    while (total < room.size()) {
        std::size_t count = 0;
        if (wait.receive(socket, room.subspan(total), deadline, count) != NO_ERROR || count == 0)
            break;
        total += count;
    }
    return total;
}

} // namespace ruvo
