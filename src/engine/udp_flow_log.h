#pragma once

#include "common/capped_log.h"
#include "engine/udp_flow.h"

#include <QString>

namespace ruvo {

/// What goes wrong with UDP flows, as log lines. A neighbour's packets can make any number of flows fail: of each
/// line the first ten are written, and every hundredth. From any thread.
class UdpFlowLog
{
public:
    explicit UdpFlowLog(CompletionPort &completionPort) : m_completionPort(completionPort) {}

    /// The control connection did not get as far as an association. A proxy that cannot be reached, or ends the
    /// connection, says nothing of interest a thousand times a second: those are silent.
    void exchangeFailed(const PortExchangeFailure &failure);
    void setupFailed(const UdpFlow::SetupFailure &failure);
    void receiveFailed(int error, SOCKET socket);
    void invalidProxyAddress(const QString &host);

    // Receives that are not posted.
    void noFlow();
    void noSocket(std::uint16_t port);
    void alreadyPending(const UdpFlow &flow, SOCKET socket);

private:
    /// Ten, and every hundredth.
    struct Cap : CappedLog
    {
        Cap() : CappedLog(10, 100) {}
    };

    void answerRefused(const socks5::SocksFailure &failure);

    CompletionPort &m_completionPort;
    Cap m_createFailed;
    Cap m_controlNotAssociated;
    Cap m_greetingFailed;
    Cap m_authFailed;
    Cap m_associateFailed;
    Cap m_relayFailed;
    Cap m_dataNotAssociated;
    Cap m_receiveFailed;
    Cap m_invalidProxy;
    Cap m_noFlow;
    Cap m_noSocket;
};

} // namespace ruvo
