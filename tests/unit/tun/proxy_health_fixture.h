#pragma once

#include "tun/proxy_health.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace ruvo {

/// Two inbounds, and time that passes when the test says so.
class ProxyHealthTest : public ::testing::Test
{
protected:
    static constexpr std::uint16_t proxyPort = 10808;
    static constexpr std::uint16_t directPort = 20808;

    void fail(int count, std::uint16_t port = proxyPort)
    {
        for (int i = 0; i < count; ++i)
            m_health.note(port, {ProxySign::Failed, m_now});
    }
    void succeed(std::uint16_t port = proxyPort) { succeedAt(m_now, port); }
    /// A connection that was let in then is told of now.
    void succeedAt(SteadyTime at, std::uint16_t port = proxyPort) { m_health.note(port, {ProxySign::Accepted, at}); }
    void endCheck(std::optional<ProxySign> sign, std::uint16_t port = proxyPort)
    {
        m_health.noteChecked(port, sign ? std::optional(ProxySighting{*sign, m_now}) : std::nullopt);
    }
    /// Which ports are to be checked now.
    std::vector<std::uint16_t> due()
    {
        std::vector<std::uint16_t> ports;
        while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(m_now))
            ports.push_back(*port);
        return ports;
    }
    /// A death of the port, from its first failure to the check that fails.
    void die(std::uint16_t port = proxyPort)
    {
        fail(5, port);
        EXPECT_THAT(due(), ::testing::ElementsAre(port));
        endCheck(ProxySign::Failed, port);
    }
    void reset()
    {
        m_health.noteReset(m_now);
        m_now += std::chrono::seconds(1);
        m_health.noteReady(m_now);
    }
    /// Failures count again: right after the readiness that follows a reset they do not.
    void losePatience() { m_now += ProxyHealth::patience; }
    /// A check of the series, which is due now, and then a second.
    void checkInSeries(std::optional<ProxySign> sign)
    {
        EXPECT_THAT(due(), ::testing::ElementsAre(proxyPort));
        endCheck(sign);
        m_now += std::chrono::seconds(1);
    }

    SteadyTime m_now{std::chrono::seconds(1000)};
    std::vector<std::uint16_t> m_deaths;
    ProxyHealth m_health{proxyPort, directPort, [this](std::uint16_t port) { m_deaths.push_back(port); }};
};

} // namespace ruvo
