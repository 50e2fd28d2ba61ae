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

int sendWithin(SocketWait &wait, SOCKET socket, std::span<const std::uint8_t> bytes,
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
        if (const int error = WSAGetLastError(); error != WSAEWOULDBLOCK)
            return error;
        if (!waitsForRoom && !wait.attach(socket, writingEvents))
            return WSAGetLastError();
        waitsForRoom = true;
        if (const int error = wait.wait(socket, deadline); error != NO_ERROR)
            return error;
    }
    return !waitsForRoom || wait.detach(socket) ? NO_ERROR : WSAGetLastError();
}

int receiveWithin(SocketWait &wait, SOCKET socket, std::span<std::uint8_t> room,
                  SocketWait::Clock::time_point deadline, std::size_t &count)
{
    count = 0;
    while (count < room.size()) {
        std::size_t more = 0;
        if (const int error = wait.receive(socket, room.subspan(count), deadline, more); error != NO_ERROR)
            return error;
        if (more == 0)
            break;
        count += more;
    }
    return NO_ERROR;
}

} // namespace ruvo
