#pragma once

#include "io/socket_wait.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace ruvo {

// Blocking work on a stream with a deadline, for a thread that waits with a SocketWait: each ends early on its stop
// event. All leave the socket open.

/// Connects and leaves the socket non-blocking. NO_ERROR, or the WSA error.
int connectWithin(SocketWait &wait, SOCKET socket, const sockaddr_in &address,
                  SocketWait::Clock::time_point deadline);
/// NO_ERROR once all of it went out, or the WSA error.
int sendWithin(SocketWait &wait, SOCKET socket, std::span<const std::uint8_t> bytes,
               SocketWait::Clock::time_point deadline);
/// NO_ERROR once as much came as there is room for, or the stream has ended before; or the WSA error. `count` bytes
/// came in any case.
int receiveWithin(SocketWait &wait, SOCKET socket, std::span<std::uint8_t> room,
                  SocketWait::Clock::time_point deadline, std::size_t &count);

} // namespace ruvo
