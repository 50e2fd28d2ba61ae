#pragma once

#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/connection_threads.h"
#include "tun/proxy_health.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace ruvo {

/// Makes the checks that a ProxyHealth asks for: a connection to the inbound, and a greeting. Each waits on a thread
/// that is there for nothing else: whatever holds the workers up and makes connections fail does not fail the check.
///
/// poll and stop belong to one thread at a time; outcomes are told to the ProxyHealth from the checks' threads.
class ProxyCheck
{
public:
    /// For the connection and the answer to the greeting together.
    static constexpr std::chrono::seconds timeout{2};

    /// `proxyHost` is a dotted IPv4 address. `stopEvent` (not owned) ends the checks. What is referred to has to
    /// outlive this.
    ProxyCheck(const std::wstring &proxyHost, HANDLE stopEvent, ProxyHealth &health);
    ~ProxyCheck() { stop(); }
    ProxyCheck(const ProxyCheck &) = delete;
    ProxyCheck &operator=(const ProxyCheck &) = delete;

    /// Every few milliseconds: begins the checks that are due. Throws nothing.
    void poll(SteadyTime now);
    /// Once the stop event is set: waits for the checks, which it has cut off and which tell nothing then.
    void stop() { m_threads.stop(); }

private:
    /// A port has one check at a time.
    static constexpr unsigned inbounds = 2;

    bool begin(std::uint16_t port);
    std::optional<ProxySighting> check(std::uint16_t port) const;

    /// In host order; 0 if the host is no address.
    const std::uint32_t m_proxyAddress;
    const HANDLE m_stopEvent;
    ProxyHealth &m_health;
    ConnectionThreads m_threads{inbounds};
};

} // namespace ruvo
