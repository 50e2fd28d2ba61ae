#include "transport/socket_wait.h"

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

void SocketWait::detach(SOCKET socket)
{
    WSAEventSelect(socket, nullptr, 0);
}

int SocketWait::wait(SOCKET socket, Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const HANDLE handles[] = {m_event.get(), m_stopEvent};
    const DWORD result =
        WaitForMultipleObjects(m_stopEvent ? 2 : 1, handles, FALSE, static_cast<DWORD>(std::max<long long>(0, left)));
    if (result == WAIT_OBJECT_0 + 1)
        return WSAEINTR;
    if (result == WAIT_TIMEOUT)
        return WSAETIMEDOUT;
    if (result != WAIT_OBJECT_0)
        return static_cast<int>(GetLastError());
    WSANETWORKEVENTS events;
    if (WSAEnumNetworkEvents(socket, m_event.get(), &events) != 0)
        return WSAGetLastError();
    return eventError(events);
}

} // namespace ruvo
