#pragma once

#include "common/windows_handles.h"
#include "io/socket_wait.h"
#include "socks5/socks_exchange.h"

#include <functional>

namespace ruvo {

/// Drives an exchange to its end on a connected non-blocking socket, by a thread that waits with `wait`. `deadline`
/// is asked before each call. An error, the deadline and the stop event cut the exchange off.
void driveExchange(socks5::SocksExchange &exchange, SocketWait &wait, SOCKET socket,
                   const std::function<SocketWait::Clock::time_point()> &deadline);

} // namespace ruvo
