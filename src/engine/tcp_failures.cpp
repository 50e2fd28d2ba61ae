#include "engine/tcp_failures.h"

#include "common/log_category.h"
#include "engine/tcp_notes.h"

namespace ruvo {

namespace {

using Step = PortExchangeFailure::Step;

/// What the proxy has answered, or what it did not.
void logAnswer(const socks5::SocksFailure &failure, const QString &destination)
{
    if (failure.step == socks5::ExchangeStep::MethodReply) {
        if (isDue(TcpNote::MethodRejected)) {
            qCCritical(lcRuvod) << "[FAIL-6] SOCKS5 auth REJECTED by proxy - bytes:" << failure.bytes.size()
                                << "method:" << failure.code();
        }
    } else if (isDue(TcpNote::RequestRejected)) {
        qCCritical(lcRuvod) << "[FAIL-7] SOCKS5 CONNECT request REJECTED by proxy - bytes:" << failure.bytes.size()
                            << "ver:" << failure.version() << "reply:" << failure.code()
                            << "(1=general failure, 2=not allowed, 3=network unreachable, 4=host unreachable, "
                               "5=connection refused, 6=TTL expired, 7=command not supported, "
                               "8=address type not supported)"
                            << destination;
    }
}

} // namespace

void logExchangeFailure(const PortExchangeFailure &failure, const QString &destination)
{
    switch (failure.step) {
    case Step::CreateSocket:
        if (isDue(TcpNote::SocketFailed))
            qCCritical(lcRuvod) << "[FAIL-1] Failed to create socket for ConnectEx - error:" << failure.error;
        break;
    case Step::Bind:
        if (isDue(TcpNote::BindFailed))
            qCWarning(lcRuvod) << "Failed to bind socket:" << failure.error;
        break;
    case Step::Associate:
        if (isDue(TcpNote::AssociateFailed)) {
            qCCritical(lcRuvod) << "[FAIL-2] Failed to associate TCP socket with IOCP, error:" << failure.error
                                << "socket:" << failure.socket << "iocp:" << failure.port;
        }
        break;
    case Step::FindConnectEx:
        if (isDue(TcpNote::NoConnectEx))
            qCCritical(lcRuvod) << "[FAIL-3] Failed to get ConnectEx function";
        break;
    case Step::IssueConnect:
        if (isDue(TcpNote::ConnectRefused))
            qCCritical(lcRuvod) << "[FAIL-4] ConnectEx to proxy FAILED immediately - error:" << failure.error;
        break;
    case Step::Connect:
        if (isDue(TcpNote::ConnectFailed)) {
            qCCritical(lcRuvod) << "[FAIL-5] ConnectEx to proxy FAILED on completion - socket error:" << failure.error
                                << "(10061=WSAECONNREFUSED, 10060=WSAETIMEDOUT, 10051=WSAENETUNREACH)";
        }
        break;
    case Step::IssueSend:
        if (failure.socks.step == socks5::ExchangeStep::Greeting && isDue(TcpNote::HandshakeSendFailed))
            qCWarning(lcRuvod) << "WSASend greeting failed:" << failure.error;
        break;
    case Step::Send:
    case Step::IssueReceive: break; // the proxy has gone
    case Step::Receive:
        if (failure.error == WSAETIMEDOUT) // part of an answer, or none of it, and then nothing more
            logAnswer(failure.socks, destination);
        break;
    case Step::Answer: logAnswer(failure.socks, destination); break;
    }
}

} // namespace ruvo
