#include "socks5/proxy_signs.h"

namespace ruvo {

namespace {

/// Whether a call on a connection that stood has failed for a reason that lies on this side.
bool isOwnFailure(int error)
{
    switch (error) {
    case WSA_INVALID_HANDLE: // no event to wait for
    case WSA_OPERATION_ABORTED:
    case WSAEINTR:
    case WSAENOBUFS:
    case WSA_NOT_ENOUGH_MEMORY: return true;
    default: return false;
    }
}

std::optional<ProxySighting> failedUnless(bool tellsNothing)
{
    if (tellsNothing)
        return std::nullopt;
    return ProxySighting{.sign = ProxySign::Failed, .at = steadyNow()};
}

/// Of a connection that stood.
std::optional<ProxySighting> sightingOf(const std::optional<SteadyTime> &acceptedAt, int error)
{
    if (acceptedAt)
        return ProxySighting{.sign = ProxySign::Accepted, .at = *acceptedAt};
    return failedUnless(isOwnFailure(error));
}

} // namespace

std::optional<ProxySighting> proxySightingOf(const PortExchange::Outcome &outcome)
{
    using Step = PortExchangeFailure::Step;
    if (outcome)
        return sightingOf(outcome->acceptedAt, NO_ERROR);
    const PortExchangeFailure &failure = outcome.error();
    switch (failure.step) {
    case Step::CreateSocket:
    case Step::Bind:
    case Step::Associate:
    case Step::FindConnectEx: return std::nullopt;
    case Step::IssueConnect:
    case Step::Connect: return proxySightingOfConnect(failure.error);
    case Step::IssueSend:
    case Step::Send:
    case Step::IssueReceive:
    case Step::Receive:
    case Step::Answer: break;
    }
    return sightingOf(failure.acceptedAt, failure.error);
}

std::optional<ProxySighting> proxySightingOf(const DrivenExchange &exchange)
{
    return sightingOf(exchange.acceptedAt, exchange.error);
}

std::optional<ProxySighting> proxySightingOfConnect(int error)
{
    switch (error) {
    case WSAECONNREFUSED:
    case WSAETIMEDOUT:
    case WSAECONNRESET: // it was let in and thrown out before anything could be said
    case WSAECONNABORTED: return failedUnless(false);
    default: return std::nullopt;
    }
}

} // namespace ruvo
