#pragma once

#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "common/upstream_decision.h"
#include "engine/connection_key.h"
#include "engine/dns_answers.h"
#include "io/completion_port.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace ruvo {

/// What the engine is given by the tunnel: everything that it does not decide itself. From any thread.
struct EngineServices
{
    /// A dotted IPv4 address.
    std::wstring proxyHost;
    /// Host order.
    std::uint32_t tunnelIp = 0;
    CompletionPort *completionPort = nullptr;
    /// Which inbound takes what goes to this destination (host order, address 0 for IPv6).
    std::function<UpstreamDecision(std::uint32_t address, std::uint16_t port)> chooseUpstream;
    /// The name that was last looked up for the destination of `key`; empty if none is known.
    std::function<std::string(const ConnectionKey &key)> nameOf;
    std::function<void(const DnsAnswer &answer)> learn;
    /// Writes a packet to the adapter in one attempt. False if the adapter has no room.
    std::function<bool(const std::uint8_t *packet, std::size_t size)> trySend;
    /// Writes a packet to the adapter, and waits for room for a short while: with no mutex held.
    std::function<void(const std::uint8_t *packet, std::size_t size)> send;
    /// Told of the connections to the proxy; may be null.
    ProxyWitness proxyWitness = {};
    SteadyClock clock = steadyNow;
};

} // namespace ruvo
