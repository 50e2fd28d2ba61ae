#pragma once

#include "common/capped_log.h"
#include "common/endpoint.h"
#include "socks5/port_exchange.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace ruvo {

/// What a connection that was accepted meets on its way out, as log lines. Any program can make any number of
/// connections that fail: of each line the first ten are written, and every hundredth. From any thread.
class ConnectLog
{
public:
    // Why there is no way out.
    /// `byName`: the proxy was asked for a name.
    void proxyFailed(const PortExchangeFailure &failure, bool byName);
    void directFailed(const PortExchangeFailure &failure, const Endpoint &destination);
    void noProxyAddress(const std::wstring &host);
    void nameTooLong();
    /// Neither by name nor by address.
    void proxyGivenUp();
    void tooMany();
    // A socket that would block; `error` is WSAGetLastError().
    void clientBlocks(int error);
    void destinationBlocks(int error);

    /// The way past the proxy is taken.
    void usingDirect(const Endpoint &destination);
    void notBoundToInterface(std::uint32_t interfaceIndex, int error);

private:
    /// Ten, and every hundredth.
    struct Cap : CappedLog
    {
        Cap() : CappedLog(10, 100) {}
    };

    void notOnPort(const PortExchangeFailure &failure);
    void exchangeFailed(const socks5::SocksFailure &failure, bool byName);

    Cap m_noSocket;
    Cap m_notBound;
    Cap m_notOnPort;
    Cap m_proxyNotReached;
    /// The lines of logSocksFailure: by step, by what was asked for, and by whether the answer was cut off.
    std::array<std::array<std::array<Cap, 2>, 2>, std::to_underlying(socks5::ExchangeStep::Reply) + 1> m_refused;
    Cap m_noDirectSocket;
    Cap m_notReachedDirectly;
    Cap m_noProxyAddress;
    Cap m_nameTooLong;
    Cap m_proxyGivenUp;
    CappedLog m_tooMany{5, 1000};
    Cap m_clientBlocks;
    Cap m_destinationBlocks;
    Cap m_usingDirect;
    Cap m_notBoundToInterface;
};

} // namespace ruvo
