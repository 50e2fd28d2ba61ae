#include "socks5/proxy_signs.h"

#include <gtest/gtest.h>

namespace ruvo::test {
namespace {

using Step = PortExchangeFailure::Step;
using socks5::ExchangeStep;

constexpr std::optional<ProxySign> nothing = std::nullopt;
/// No way there, a filter in between, no port left, no memory, cancelled.
constexpr int notAsked[] = {WSAENETUNREACH, WSAEHOSTUNREACH,      WSAEACCES, WSAEADDRNOTAVAIL, WSAEADDRINUSE,
                            WSAENOBUFS,     WSA_OPERATION_ABORTED};
constexpr int ownFailures[] = {WSAENOBUFS, WSA_NOT_ENOUGH_MEMORY, WSA_OPERATION_ABORTED, WSAEINTR};

std::optional<ProxySign> signOf(Step step, int error, ExchangeStep stage = ExchangeStep::Greeting)
{
    PortExchangeFailure failure{.step = step, .error = error};
    failure.socks.step = stage;
    return proxySignOf(std::unexpected(failure));
}

TEST(ProxySigns, aConnectionThatStandsIsAccepted)
{
    EXPECT_EQ(proxySignOf(EstablishedExchange()), ProxySign::Accepted);
}

TEST(ProxySigns, aFailureBeforeTheConnectTellsNothing)
{
    for (const Step step : {Step::CreateSocket, Step::Bind, Step::Associate, Step::FindConnectEx}) {
        for (const int error : {WSAENOBUFS, WSAEMFILE, WSAEADDRINUSE, WSAECONNREFUSED, WSAETIMEDOUT})
            EXPECT_EQ(signOf(step, error), nothing) << static_cast<int>(step) << ' ' << error;
    }
}

TEST(ProxySigns, aConnectFailsTheProxyWhenItIsRefusedOrTimesOut)
{
    for (const Step step : {Step::IssueConnect, Step::Connect}) {
        EXPECT_EQ(signOf(step, WSAECONNREFUSED), ProxySign::Failed);
        EXPECT_EQ(signOf(step, WSAETIMEDOUT), ProxySign::Failed);
        for (const int error : notAsked)
            EXPECT_EQ(signOf(step, error), nothing) << error;
    }
}

TEST(ProxySigns, ofAConnectAloneAreTheSame)
{
    EXPECT_EQ(proxySignOfConnect(WSAECONNREFUSED), ProxySign::Failed);
    EXPECT_EQ(proxySignOfConnect(WSAETIMEDOUT), ProxySign::Failed);
    for (const int error : {int{NO_ERROR}, WSAEINTR, WSAENOBUFS, WSAEACCES})
        EXPECT_EQ(proxySignOfConnect(error), nothing) << error;
}

TEST(ProxySigns, withoutTheMethodsReplyItHasFailed)
{
    for (const ExchangeStep stage : {ExchangeStep::Greeting, ExchangeStep::MethodReply}) {
        for (const Step step : {Step::IssueSend, Step::Send, Step::IssueReceive, Step::Receive}) {
            for (const int error : {WSAECONNRESET, WSAECONNABORTED, WSAETIMEDOUT, WSAENETRESET})
                EXPECT_EQ(signOf(step, error, stage), ProxySign::Failed) << error;
        }
    }
    // Another method, another version, or the end of the stream.
    EXPECT_EQ(signOf(Step::Answer, NO_ERROR, ExchangeStep::MethodReply), ProxySign::Failed);
}

TEST(ProxySigns, whatFailsOnThisSideTellsNothing)
{
    for (const ExchangeStep stage : {ExchangeStep::Greeting, ExchangeStep::MethodReply}) {
        for (const Step step : {Step::IssueSend, Step::Send, Step::IssueReceive, Step::Receive}) {
            for (const int error : ownFailures)
                EXPECT_EQ(signOf(step, error, stage), nothing) << error;
        }
    }
}

TEST(ProxySigns, afterTheMethodsReplyItIsAcceptedHoweverTheRequestEnds)
{
    for (const ExchangeStep stage : {ExchangeStep::Request, ExchangeStep::Reply}) {
        for (const Step step : {Step::IssueSend, Step::Send, Step::IssueReceive, Step::Receive, Step::Answer}) {
            for (const int error : {int{NO_ERROR}, WSAECONNRESET, WSAETIMEDOUT, WSAENOBUFS})
                EXPECT_EQ(signOf(step, error, stage), ProxySign::Accepted) << error;
        }
    }
}

} // namespace
} // namespace ruvo::test
