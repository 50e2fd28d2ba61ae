#include "io/socket_wait.h"

#include <algorithm>

namespace ruvo {

namespace {

/// The error of the first event that came with one.
int eventError(const WSANETWORKEVENTS &events)
{
    for (int bit = 0; bit < FD_MAX_EVENTS; ++bit) {
        if ((events.lNetworkEvents & (1L << bit)) && events.iErrorCode[bit] != NO_ERROR)
            return events.iErrorCode[bit];
    }
    return NO_ERROR;
}

} // namespace

SocketWait::SocketWait(HANDLE stopEvent)
    : m_stopEvent(stopEvent), m_event(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{}

bool SocketWait::attach(SOCKET socket, long events)
{
    if (!m_event) {
        WSASetLastError(WSA_NOT_ENOUGH_MEMORY); // whatever came after the failure that it is about
        return false;
    }
    // An earlier socket may have left it signalled, and a connect would be taken for done. What holds for this socket
    // already is signalled anew.
    ResetEvent(m_event.get());
    return WSAEventSelect(socket, m_event.get(), events) == 0;
}

bool SocketWait::detach(SOCKET socket)
{
    return WSAEventSelect(socket, nullptr, 0) == 0;
}

int SocketWait::waitForEvent(Clock::time_point deadline) const
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const HANDLE handles[] = {m_event.get(), m_stopEvent};
    const DWORD result =
        WaitForMultipleObjects(m_stopEvent ? 2 : 1, handles, FALSE, static_cast<DWORD>(std::max<long long>(0, left)));
    switch (result) {
    case WAIT_OBJECT_0: return NO_ERROR;
    case WAIT_OBJECT_0 + 1: return WSAEINTR;
    case WAIT_TIMEOUT: return WSAETIMEDOUT;
    default: return static_cast<int>(GetLastError());
    }
}

int SocketWait::wait(SOCKET socket, Clock::time_point deadline)
{
    if (const int error = waitForEvent(deadline); error != NO_ERROR)
        return error;
    WSANETWORKEVENTS events;
    if (WSAEnumNetworkEvents(socket, m_event.get(), &events) != 0)
        return WSAGetLastError();
    return eventError(events);
}

int SocketWait::receive(SOCKET socket, std::span<std::uint8_t> room, Clock::time_point deadline, std::size_t &count)
{
    OVERLAPPED operation{};
    operation.hEvent = m_event.get();
    WSABUF buffer{.len = static_cast<ULONG>(room.size()), .buf = reinterpret_cast<char *>(room.data())};
    DWORD bytes = 0;
    DWORD flags = 0;
    if (WSARecv(socket, &buffer, 1, &bytes, &flags, &operation, nullptr) != 0) {
        int error = WSAGetLastError();
        if (error != WSA_IO_PENDING)
            return error;
        error = waitForEvent(deadline);
        if (error != NO_ERROR)
            CancelIoEx(reinterpret_cast<HANDLE>(socket), &operation);
        // Buffer and operation are this function's: it does not return before both are its own again.
        const bool isReceived = WSAGetOverlappedResult(socket, &operation, &bytes, TRUE, &flags);
        if (error != NO_ERROR)
            return error;
        if (!isReceived)
            return WSAGetLastError();
    }
    count = bytes;
    return NO_ERROR;
}

} // namespace ruvo
