#pragma once

#include "common/endpoint.h"
#include "socks5/port_exchange.h"

namespace ruvo {

// Why a connection that was accepted has no way out, as warnings.

/// `byName`: the proxy was asked for a name.
void logProxyFailure(const PortExchangeFailure &failure, bool byName);
void logDirectFailure(const PortExchangeFailure &failure, const Endpoint &destination);

} // namespace ruvo
