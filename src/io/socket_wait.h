#pragma once

#include "common/windows_handles.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

namespace ruvo {

/// Lets a thread wait on its own non-blocking socket, for a limited time and until a stop event: so nobody ever has
/// to close another thread's socket to wake it. One thread.
class SocketWait
{
public:
    using Clock = std::chrono::steady_clock;

    /// `stopEvent` may be null (no stop); it is not owned.
    explicit SocketWait(HANDLE stopEvent);

    /// Makes `socket` non-blocking and signals its `events` (FD_CONNECT, FD_WRITE …) here. False if that cannot be
    /// (WSAGetLastError()).
    bool attach(SOCKET socket, long events);
    /// The socket is signalled nowhere any more; it stays non-blocking. False as with attach.
    bool detach(SOCKET socket);
    /// Waits for one of the attached events. NO_ERROR when one came (or with the error that it carries),
    /// WSAETIMEDOUT at the deadline, WSAEINTR on the stop.
    int wait(SOCKET socket, Clock::time_point deadline);

    /// Receives what comes next on a socket that is not attached: `count` bytes, 0 at the end of the stream. Errors
    /// as with wait; nothing is in flight afterwards.
    ///
    /// An overlapped receive and not a wait for FD_READ: that takes three calls more, for every answer.
    int receive(SOCKET socket, std::span<std::uint8_t> room, Clock::time_point deadline, std::size_t &count);

private:
    int waitForEvent(Clock::time_point deadline) const;

    const HANDLE m_stopEvent;
    KernelHandle m_event;
};

} // namespace ruvo
