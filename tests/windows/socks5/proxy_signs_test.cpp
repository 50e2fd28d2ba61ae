#include "socks5/proxy_signs.h"

#include <gtest/gtest.h>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Step = PortExchangeFailure::Step;

constexpr std::optional<ProxySighting> nothing = std::nullopt;
constexpr SteadyTime letIn{1000s};
constexpr ProxySighting accepted{.sign = ProxySign::Accepted, .at = letIn};
/// No way there, a filter in between, no port left, no memory, cancelled.
constexpr int notAsked[] = {WSAENETUNREACH, WSAEHOSTUNREACH,      WSAEACCES, WSAEADDRNOTAVAIL, WSAEADDRINUSE,
                            WSAENOBUFS,     WSA_OPERATION_ABORTED};
constexpr int refused[] = {WSAECONNREFUSED, WSAETIMEDOUT, WSAECONNRESET, WSAECONNABORTED};
constexpr int ownFailures[] = {WSAENOBUFS, WSA_NOT_ENOUGH_MEMORY, WSA_OPERATION_ABORTED, WSAEINTR,
                               WSA_INVALID_HANDLE};
constexpr int proxyFailures[] = {WSAECONNRESET, WSAECONNABORTED, WSAETIMEDOUT, WSAENETRESET};
constexpr Step exchangeSteps[] = {Step::IssueSend, Step::Send, Step::IssueReceive, Step::Receive};

std::optional<ProxySighting> sightingOf(Step step, int error, std::optional<SteadyTime> acceptedAt = {})
{
    return proxySightingOf(
        std::unexpected(PortExchangeFailure{.step = step, .error = error, .acceptedAt = acceptedAt}));
}

/// A failure seen just now.
void expectFailed(const std::optional<ProxySighting> &sighting, int error)
{
    const SteadyTime now = steadyNow();
    ASSERT_TRUE(sighting) << error;
    EXPECT_EQ(sighting->sign, ProxySign::Failed) << error;
    EXPECT_LE(sighting->at, now);
    EXPECT_GT(sighting->at, now - 10s);
}

TEST(ProxySigns, aConnectionThatStandsWasAcceptedWhenTheMethodWas)
{
    EXPECT_EQ(proxySightingOf(EstablishedExchange{.socket = {}, .bound = {}, .acceptedAt = letIn}), accepted);
}

TEST(ProxySigns, aFailureBeforeTheConnectTellsNothing)
{
    for (const Step step : {Step::CreateSocket, Step::Bind, Step::Associate, Step::FindConnectEx}) {
        for (const int error : {WSAENOBUFS, WSAEMFILE, WSAEADDRINUSE, WSAECONNREFUSED, WSAETIMEDOUT})
            EXPECT_EQ(sightingOf(step, error), nothing) << static_cast<int>(step) << ' ' << error;
    }
}

TEST(ProxySigns, aConnectFailsTheProxyWhenItIsRefusedOrTimesOut)
{
    for (const Step step : {Step::IssueConnect, Step::Connect}) {
        for (const int error : refused)
            expectFailed(sightingOf(step, error), error);
        for (const int error : notAsked)
            EXPECT_EQ(sightingOf(step, error), nothing) << error;
    }
}

TEST(ProxySigns, ofAConnectAloneAreTheSame)
{
    for (const int error : refused)
        expectFailed(proxySightingOfConnect(error), error);
    for (const int error : {int{NO_ERROR}, WSAEINTR, WSAENOBUFS, WSAEACCES})
        EXPECT_EQ(proxySightingOfConnect(error), nothing) << error;
}

TEST(ProxySigns, withoutTheMethodsReplyItHasFailed)
{
    for (const Step step : exchangeSteps) {
        for (const int error : proxyFailures)
            expectFailed(sightingOf(step, error), error);
    }
    // Another method, another version, or the end of the stream.
    expectFailed(sightingOf(Step::Answer, NO_ERROR), NO_ERROR);
}

TEST(ProxySigns, whatFailsOnThisSideTellsNothing)
{
    for (const Step step : exchangeSteps) {
        for (const int error : ownFailures)
            EXPECT_EQ(sightingOf(step, error), nothing) << error;
    }
}

TEST(ProxySigns, afterTheMethodsReplyItIsAcceptedHoweverTheRequestEnds)
{
    for (const Step step : {Step::IssueSend, Step::Send, Step::IssueReceive, Step::Receive, Step::Answer}) {
        for (const int error : {int{NO_ERROR}, WSAECONNRESET, WSAETIMEDOUT, WSAENOBUFS})
            EXPECT_EQ(sightingOf(step, error, letIn), accepted) << error;
    }
}

TEST(ProxySigns, ofAnExchangeOnAThreadAreTheSame)
{
    for (const int error : {int{NO_ERROR}, WSAECONNRESET, WSAETIMEDOUT, WSAEINTR})
        EXPECT_EQ(proxySightingOf(DrivenExchange{.error = error, .acceptedAt = letIn}), accepted) << error;
    expectFailed(proxySightingOf(DrivenExchange()), NO_ERROR);
    for (const int error : proxyFailures)
        expectFailed(proxySightingOf(DrivenExchange{.error = error}), error);
    for (const int error : ownFailures)
        EXPECT_EQ(proxySightingOf(DrivenExchange{.error = error}), nothing) << error;
}

} // namespace
} // namespace ruvo::test
