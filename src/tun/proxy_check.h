#pragma once

#include "common/steady_clock.h"
#include "io/completion_port.h"
#include "socks5/port_exchange.h"
#include "tun/proxy_health.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace ruvo {

/// Makes the checks that a ProxyHealth asks for: a connection to the inbound, and a greeting. They go on by
/// themselves on the completion port, so that nobody waits for them.
///
/// One thread at a time; outcomes are told to the ProxyHealth from workers, and from inside poll.
class ProxyCheck
{
public:
    /// For the connection and the answer to the greeting together.
    static constexpr std::chrono::seconds timeout{2};

    /// `proxyHost` is a dotted IPv4 address. What is referred to has to outlive this.
    ProxyCheck(const std::wstring &proxyHost, CompletionPort &completionPort, ProxyHealth &health);
    ~ProxyCheck() { stop(); }
    ProxyCheck(const ProxyCheck &) = delete;
    ProxyCheck &operator=(const ProxyCheck &) = delete;

    /// Every few milliseconds: begins the checks that are due, and ends those that have taken too long.
    void poll(SteadyTime now);
    /// Ends the checks that are under way; of these the ProxyHealth hears no more. An outcome that was known before
    /// may be told until the workers have been joined.
    void stop();

private:
    struct Attempt
    {
        std::uint16_t port = 0;
        SteadyTime deadline;
        /// Until the deadline, even if it is over before.
        PortExchangePtr exchange;
    };

    void begin(std::uint16_t port, SteadyTime now);
    PortExchangePtr makeExchange(std::uint16_t port, SteadyTime deadline);

    /// In host order; 0 if the host is no address.
    const std::uint32_t m_proxyAddress;
    CompletionPort &m_completionPort;
    ProxyHealth &m_health;
    /// One for each inbound: a port has one check at a time.
    std::array<Attempt, 2> m_attempts;
};

} // namespace ruvo
