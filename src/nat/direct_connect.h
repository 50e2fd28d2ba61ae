#pragma once

#include "common/endpoint.h"
#include "nat/connect_log.h"
#include "socks5/port_exchange.h"

#include <cstdint>

namespace ruvo {

/// How to connect to the destination itself, past the proxy and, where `physicalInterface` is known (not 0), past the
/// tunnel. Says to `log`, which has to outlive the plan, that this way is taken.
PortExchangePlan directConnectPlan(const Endpoint &destination, std::uint32_t physicalInterface, ConnectLog &log);

} // namespace ruvo
