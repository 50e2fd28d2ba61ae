#pragma once

#include "common/capped_log.h"
#include "common/endpoint.h"
#include "socks5/socks_exchange.h"

#include <cstdint>

namespace ruvo {

/// What goes wrong with the UDP flows of the NAT path, as log lines. A neighbour's packets can make any number of
/// flows fail: of each line the first ten are written, and every hundredth. Lives as long as its relay; from any
/// thread.
class UdpNatLog
{
public:
    // Of the control connection.
    void proxyNotReached(int error);
    void exchangeFailed(const socks5::SocksFailure &failure);
    void unexpectedAddressType(std::uint8_t type);

    // Of the data socket.
    void notBound(int error);
    void notBoundToInterface(std::uint32_t interfaceIndex, int error);
    void notConnected(int error);
    void notAssociated(unsigned long error);
    void receiveFailed(int error);
    void invalidHeader();
    void sendFailed(int error);
    void directSendFailed(int error);

    // Of the flow.
    void sessionFailed(const Endpoint &target);
    void noPhysicalInterface(const Endpoint &target);

private:
    /// Ten, and every hundredth.
    struct Cap : CappedLog
    {
        Cap() : CappedLog(10, 100) {}
    };

    Cap m_proxyNotReached;
    Cap m_authFailed;
    Cap m_shortReply;
    Cap m_associateFailed;
    Cap m_unexpectedAddressType;
    Cap m_notBound;
    Cap m_notBoundToInterface;
    Cap m_notConnected;
    Cap m_notAssociated;
    Cap m_receiveFailed;
    Cap m_invalidHeader;
    Cap m_sendFailed;
    Cap m_directSendFailed;
    Cap m_sessionFailed;
    Cap m_noPhysicalInterface;
};

} // namespace ruvo
