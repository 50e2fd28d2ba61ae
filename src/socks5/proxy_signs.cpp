#include "socks5/proxy_signs.h"

namespace ruvo {

namespace {

/// Whether a call on a connection that stood has failed for a reason that lies on this side.
bool isOwnFailure(int error)
{
    switch (error) {
    case WSA_OPERATION_ABORTED:
    case WSAEINTR:
    case WSAENOBUFS:
    case WSA_NOT_ENOUGH_MEMORY: return true;
    default: return false;
    }
}

std::optional<ProxySign> failedUnless(bool tellsNothing)
{
    return tellsNothing ? std::nullopt : std::optional(ProxySign::Failed);
}

} // namespace

std::optional<ProxySign> proxySignOf(const PortExchange::Outcome &outcome)
{
    using Step = PortExchangeFailure::Step;
    if (outcome)
        return ProxySign::Accepted;
    const PortExchangeFailure &failure = outcome.error();
    switch (failure.step) {
    case Step::CreateSocket:
    case Step::Bind:
    case Step::Associate:
    case Step::FindConnectEx: return std::nullopt;
    case Step::IssueConnect:
    case Step::Connect: return proxySignOfConnect(failure.error);
    case Step::IssueSend:
    case Step::Send:
    case Step::IssueReceive:
    case Step::Receive:
    case Step::Answer: break;
    }
    if (failure.socks.isGreetingAccepted())
        return ProxySign::Accepted;
    return failedUnless(isOwnFailure(failure.error));
}

std::optional<ProxySign> proxySignOfConnect(int error)
{
    return failedUnless(error != WSAECONNREFUSED && error != WSAETIMEDOUT);
}

} // namespace ruvo
