#include "nat/connect_log.h"

#include "common/log_category.h"
#include "socks5/socks_failure_log.h"

namespace ruvo {

namespace {

using Step = PortExchangeFailure::Step;

void logNotOnPort(const PortExchangeFailure &failure)
{
    qCWarning(lcRuvod) << "[TCP-NAT-IOCP] Failed to associate dest socket with IOCP:" << failure.error;
}

} // namespace

void logProxyFailure(const PortExchangeFailure &failure, bool byName)
{
    switch (failure.step) {
    case Step::CreateSocket: qCWarning(lcRuvod) << "Failed to create socket:" << failure.error; break;
    case Step::Bind: qCWarning(lcRuvod) << "Failed to bind socket:" << failure.error; break;
    case Step::Associate: logNotOnPort(failure); break;
    case Step::FindConnectEx:
    case Step::IssueConnect:
    case Step::Connect: qCWarning(lcRuvod) << "Failed to connect to proxy:" << failure.error; break;
    case Step::IssueSend:
    case Step::Send:
    case Step::IssueReceive:
    case Step::Receive:
    case Step::Answer: logSocksFailure(failure.socks, byName); break;
    }
}

void logDirectFailure(const PortExchangeFailure &failure, const Endpoint &destination)
{
    switch (failure.step) {
    case Step::CreateSocket:
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to create direct socket:" << failure.error;
        break;
    case Step::Associate: logNotOnPort(failure); break;
    default:
        qCWarning(lcRuvod).nospace().noquote() << "[TCP-NAT] Failed to connect directly to "
                                               << formatEndpoint(destination) << " - Error: " << failure.error;
    }
}

} // namespace ruvo
