#pragma once

#include "common/proxy_sign.h"
#include "socks5/blocking_exchange.h"
#include "socks5/port_exchange.h"

#include <optional>

namespace ruvo {

// What a connection to the proxy tells of it: whether it answered the greeting with 05 00, if it was asked at all. A
// failure of this machine (no socket, no memory, a filter that forbids the connect) tells nothing, and neither does a
// connection that we ended ourselves.

/// Of an exchange with the proxy, one that has a request (which may be empty).
std::optional<ProxySighting> proxySightingOf(const PortExchange::Outcome &outcome);
/// Of one on a thread that waits.
std::optional<ProxySighting> proxySightingOf(const DrivenExchange &exchange);
/// Of a connect to the proxy that ended with this WSA error.
std::optional<ProxySighting> proxySightingOfConnect(int error);

} // namespace ruvo
