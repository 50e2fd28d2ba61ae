#include "engine/udp_flow_log.h"

#include "common/dns_redirect.h"
#include "common/log_category.h"

namespace ruvo {

void UdpFlowLog::exchangeFailed(const PortExchangeFailure &failure)
{
    using Step = PortExchangeFailure::Step;
    switch (failure.step) {
    case Step::CreateSocket:
    case Step::Bind:
        if (m_createFailed.take()) {
            const bool isBind = failure.step == Step::Bind;
            qCWarning(lcRuvod) << (isBind ? "Failed to bind TCP socket:" : "Failed to create TCP socket:")
                               << failure.error;
            qCWarning(lcRuvod) << "Failed to create TCP socket for UDP associate";
        }
        break;
    case Step::Associate:
        if (m_controlNotAssociated.take()) {
            qCWarning(lcRuvod) << "Failed to associate UDP control socket with IOCP, error:" << failure.error
                               << "socket:" << failure.socket << "iocp:" << failure.port;
        }
        break;
    case Step::IssueSend:
        if (failure.socks.step == socks5::ExchangeStep::Greeting && m_greetingFailed.take())
            qCWarning(lcRuvod) << "WSASend UDP greeting failed:" << failure.error;
        break;
    case Step::Answer: answerRefused(failure.socks); break;
    default: break;
    }
}

void UdpFlowLog::answerRefused(const socks5::SocksFailure &failure)
{
    if (failure.step == socks5::ExchangeStep::MethodReply) {
        if (m_authFailed.take())
            qCWarning(lcRuvod) << "SOCKS5 UDP auth failed";
    } else if (m_associateFailed.take()) {
        qCWarning(lcRuvod) << "SOCKS5 UDP associate failed - bytes:" << failure.bytes.size()
                           << "ver:" << failure.version() << "status:" << failure.code()
                           << "(0x01=general failure, 0x05=connection refused)";
    }
}

void UdpFlowLog::setupFailed(const UdpFlow::SetupFailure &failure)
{
    using Step = UdpFlow::SetupFailure::Step;
    switch (failure.step) {
    case Step::Closed: break;
    case Step::RelaySocket:
        if (m_relayFailed.take())
            qCWarning(lcRuvod) << "Failed to setup UDP relay socket";
        break;
    case Step::Associate:
        if (m_dataNotAssociated.take()) {
            qCWarning(lcRuvod) << "Failed to associate UDP data socket with IOCP, error:" << failure.error
                               << "socket:" << failure.socket << "iocp:" << m_completionPort.handle();
        }
        break;
    case Step::Receive: receiveFailed(failure.error, failure.socket); break;
    }
}

void UdpFlowLog::receiveFailed(int error, SOCKET socket)
{
    // The socket went while its receive was being posted: that is how flows end.
    if (error == WSAENOTSOCK || error == WSAEINTR)
        return;
    if (m_receiveFailed.take())
        qCWarning(lcRuvod) << "WSARecvFrom failed:" << error << "socket:" << socket;
}

void UdpFlowLog::invalidProxyAddress(const QString &host)
{
    if (m_invalidProxy.take())
        qCWarning(lcRuvod) << "Invalid proxy address:" << host;
}

void UdpFlowLog::noFlow()
{
    if (m_noFlow.take())
        qCWarning(lcRuvod) << "[postUdpRecv] EARLY EXIT: flow is null";
}

void UdpFlowLog::noSocket(std::uint16_t port)
{
    if (m_noSocket.take())
        qCWarning(lcRuvod) << "[postUdpRecv] EARLY EXIT: flow->socks is null, port:" << port;
}

void UdpFlowLog::alreadyPending(const UdpFlow &flow, SOCKET socket)
{
    static CappedLog s_pending(6);
    if (flow.id().key.destinationPort == dnsPort && s_pending.take())
        qCWarning(lcRuvod) << "[postUdpRecv] EARLY EXIT: recvPending already true, socket:" << socket;
}

} // namespace ruvo
