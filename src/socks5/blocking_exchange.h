#pragma once

#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/socket_wait.h"
#include "socks5/socks_exchange.h"

#include <functional>
#include <optional>

namespace ruvo {

/// What driveExchange has seen.
struct DrivenExchange
{
    /// The WSA error that has cut it off: WSAETIMEDOUT at the deadline, WSAEINTR on the stop event. NO_ERROR also if
    /// the stream has ended, or the answer was not the one wanted.
    int error = NO_ERROR;
    /// When the proxy accepted the method, if it did.
    std::optional<SteadyTime> acceptedAt = {};
};

/// Drives an exchange to its end on a connected non-blocking socket, by a thread that waits with `wait`. `deadline`
/// is asked before each call. An error, the deadline and the stop event cut the exchange off.
DrivenExchange driveExchange(socks5::SocksExchange &exchange, SocketWait &wait, SOCKET socket,
                             const std::function<SocketWait::Clock::time_point()> &deadline);

} // namespace ruvo
