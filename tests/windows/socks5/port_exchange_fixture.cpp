#include "windows/socks5/port_exchange_fixture.h"

namespace ruvo::test {

using namespace std::chrono_literals;

void PortExchangeTest::TearDown()
{
    EXPECT_TRUE(drain()) << m_port.inFlight() << " operations are still in flight";
    m_outcome.reset();
    m_proxy.reset();
}

PortExchangePlan PortExchangeTest::plan(std::uint16_t port)
{
    return {.peer = {INADDR_LOOPBACK, port}, .request = socks5::requestBytes(web)};
}

PortExchangePtr PortExchangeTest::make(PortExchangePlan plan)
{
    const auto token = std::make_shared<int>();
    m_callback = token;
    m_outcome.reset();
    m_outcomes = 0;
    m_socket = INVALID_SOCKET;
    m_closed.clear();
    if (!plan.prepare)
        plan.prepare = [this](SOCKET socket) { m_socket = socket; };
    return std::make_shared<PortExchange>(m_port, std::move(plan), [this, token](PortExchange::Outcome outcome) {
        m_outcome.emplace(std::move(outcome));
        ++m_outcomes;
    });
}

PortExchangePtr PortExchangeTest::start(PortExchangePlan plan)
{
    PortExchangePtr exchange = make(std::move(plan));
    exchange->start();
    return exchange;
}

PortExchange::Outcome &PortExchangeTest::outcome()
{
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!m_outcome && std::chrono::steady_clock::now() < deadline)
        m_port.runOne(50ms);
    if (!m_outcome) {
        ADD_FAILURE() << "no outcome";
        m_outcome = std::unexpected(PortExchangeFailure());
    }
    return *m_outcome;
}

bool PortExchangeTest::runTo(const PortExchangePtr &exchange, int stage)
{
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (exchange->stage() != stage && !m_outcome && std::chrono::steady_clock::now() < deadline)
        m_port.runOne(50ms);
    return exchange->stage() == stage && !m_outcome;
}

void PortExchangeTest::expectGone()
{
    EXPECT_TRUE(drain());
    EXPECT_FALSE(m_outcome);
    EXPECT_TRUE(m_callback.expired()) << "with all that it owns";
    EXPECT_TRUE(isClosed());
}

} // namespace ruvo::test
