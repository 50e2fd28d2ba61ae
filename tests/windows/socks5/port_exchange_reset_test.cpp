// Connections that are given up: whether their ports stay in TIME_WAIT.

#include "windows/socks5/port_exchange_fixture.h"

#include <vector>

namespace ruvo::test {
namespace {

class PortExchangeReset : public PortExchangeTest
{
protected:
    static PortExchangePlan planWith(std::uint16_t port, bool resetsWhenGivenUp)
    {
        PortExchangePlan plan = PortExchangeTest::plan(port);
        plan.resetsWhenGivenUp = resetsWhenGivenUp;
        return plan;
    }

    /// The sockets that will be reset when they are closed.
    std::vector<SOCKET> m_reset;

private:
    const ImportRedirection<IMPORT(setsockopt)> m_set{
        [this](SOCKET socket, int level, int name, const char *value, int size) -> int {
            if (level == SOL_SOCKET && name == SO_LINGER) {
                const auto *linger = reinterpret_cast<const struct linger *>(value);
                if (linger->l_onoff != 0 && linger->l_linger == 0 && !isClosed())
                    m_reset.push_back(socket);
            }
            return m_set.real(socket, level, name, value, size);
        }};
};

TEST_F(PortExchangeReset, ofOneThatIsCancelled)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    for (const bool isWanted : {false, true}) {
        const PortExchangePtr exchange = start(planWith(m_proxy->port(), isWanted));
        EXPECT_TRUE(runTo(exchange, 3));
        EXPECT_TRUE(exchange->cancel());
        EXPECT_EQ(m_reset, isWanted ? std::vector{m_socket} : std::vector<SOCKET>());
        EXPECT_TRUE(isClosed());
        EXPECT_TRUE(drain());
    }
}

TEST_F(PortExchangeReset, ofOneThatIsOverdue)
{
    startProxy([](ProxyConnection &client) { client.waitForEnd(); });
    PortExchangePlan plan = planWith(m_proxy->port(), true);
    plan.deadline = steadyNow();
    const PortExchangePtr exchange = start(std::move(plan));
    exchange->expireIfOverdue(steadyNow());
    EXPECT_EQ(m_reset, std::vector{m_socket});
    EXPECT_TRUE(isClosed());
    EXPECT_TRUE(drain());
}

TEST_F(PortExchangeReset, notOfOneThatStands)
{
    startProxy([](ProxyConnection &client) {
        client.receive(3);
        client.send(accepted);
        client.receive(10);
        client.send(connected);
        client.waitForEnd();
    });
    start(planWith(m_proxy->port(), true));
    ASSERT_TRUE(outcome());
    EXPECT_TRUE(m_reset.empty());
    outcome()->socket.reset();
}

} // namespace
} // namespace ruvo::test
