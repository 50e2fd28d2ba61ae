#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace ruvo {

/// What one connection to an inbound of the proxy tells of it.
enum class ProxySign {
    Accepted, ///< it has answered the greeting with 05 00, whatever it says of the request that follows
    Failed,   ///< refused, timed out, or no such answer
};

/// Told of each connection to the proxy host once its sign is known, with the port of the inbound (host order). From
/// any thread, with no lock of the teller's held; returns at once.
using ProxyWitness = std::function<void(std::uint16_t port, ProxySign sign)>;

/// Tells the witness, if there is one, of a sign, if there is one.
inline void tell(const ProxyWitness &witness, std::uint16_t port, std::optional<ProxySign> sign)
{
    if (witness && sign)
        witness(port, *sign);
}

} // namespace ruvo
