#pragma once

#include "common/proxy_sign.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace ruvo::test {

/// Writes down what it is told of the proxy.
class RecordingWitness
{
public:
    using Signs = std::vector<std::pair<std::uint16_t, ProxySign>>;

    ProxyWitness function()
    {
        return [this](std::uint16_t port, const ProxySighting &sighting) {
            if (whenTold)
                whenTold();
            const std::lock_guard lock(m_mutex);
            m_signs.emplace_back(port, sighting.sign);
            m_lastSeen = sighting.at;
        };
    }
    Signs signs() const
    {
        const std::lock_guard lock(m_mutex);
        return m_signs;
    }
    /// Waits until it has been told as much: these and no others, in order.
    void expect(const Signs &expected)
    {
        EXPECT_TRUE(waitUntil([&] { return signs().size() >= expected.size(); }));
        EXPECT_EQ(signs(), expected);
    }
    void expectFailure(std::uint16_t port) { expect({{port, ProxySign::Failed}}); }
    void expectAccepted(std::uint16_t port) { expect({{port, ProxySign::Accepted}}); }
    /// The same, seen by then, however late it is told.
    void expectAcceptedBy(SteadyTime moment, std::uint16_t port)
    {
        expectAccepted(port);
        const std::lock_guard lock(m_mutex);
        EXPECT_LE(m_lastSeen, moment);
    }

    /// Called each time, before it is written down: whatever the teller may not hold a lock of.
    std::function<void()> whenTold;

private:
    mutable std::mutex m_mutex;
    Signs m_signs;
    SteadyTime m_lastSeen;
};

} // namespace ruvo::test
