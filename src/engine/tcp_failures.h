#pragma once

#include "socks5/port_exchange.h"

#include <QString>

namespace ruvo {

/// Logs why a connection's exchange with the proxy came to nothing. `destination` is what was asked for.
void logExchangeFailure(const PortExchangeFailure &failure, const QString &destination);

} // namespace ruvo
