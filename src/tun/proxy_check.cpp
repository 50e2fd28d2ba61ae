#include "tun/proxy_check.h"

#include "common/ipv4.h"
#include "socks5/proxy_signs.h"

#include <QString>

#include <algorithm>
#include <new>
#include <utility>

namespace ruvo {

ProxyCheck::ProxyCheck(const std::wstring &proxyHost, CompletionPort &completionPort, ProxyHealth &health)
    : m_proxyAddress(parseIpv4(QString::fromStdWString(proxyHost)))
    , m_completionPort(completionPort)
    , m_health(health)
{}

void ProxyCheck::poll(SteadyTime now)
{
    while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(now))
        begin(*port, now);
    for (Attempt &attempt : m_attempts) {
        if (attempt.exchange && now >= attempt.deadline)
            std::exchange(attempt.exchange, nullptr)->expireIfOverdue(now);
    }
}

void ProxyCheck::begin(std::uint16_t port, SteadyTime now)
{
    auto attempt = std::ranges::find(m_attempts, port, &Attempt::port);
    if (attempt == m_attempts.end())
        attempt = std::ranges::find(m_attempts, 0, &Attempt::port);
    const SteadyTime deadline = now + timeout;
    const PortExchangePtr exchange = attempt == m_attempts.end() ? nullptr : makeExchange(port, deadline);
    if (!exchange)
        return m_health.noteChecked(port, std::nullopt);
    *attempt = {.port = port, .deadline = deadline, .exchange = exchange};
    exchange->start();
}

/// Null if there is no address, or no memory.
PortExchangePtr ProxyCheck::makeExchange(std::uint16_t port, SteadyTime deadline)
{
    if (m_proxyAddress == 0)
        return nullptr;
    PortExchangePlan plan{.peer = {m_proxyAddress, port}, .request = socks5::Bytes(), .deadline = deadline};
    try {
        return std::make_shared<PortExchange>(
            m_completionPort, std::move(plan),
            [this, port](PortExchange::Outcome outcome) { m_health.noteChecked(port, proxySignOf(outcome)); });
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void ProxyCheck::stop()
{
    for (Attempt &attempt : m_attempts) {
        if (const PortExchangePtr exchange = std::exchange(attempt.exchange, nullptr))
            exchange->cancel();
    }
}

} // namespace ruvo
