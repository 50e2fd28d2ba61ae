#pragma once

#include "socks5/socks_exchange.h"

namespace ruvo {

/// Warns of an exchange that came to nothing, in the words of a client that asks for a connection. `byName`: it asked
/// for a name.
void logSocksFailure(const socks5::SocksFailure &failure, bool byName);

} // namespace ruvo
