#include "tun/proxy_health.h"

#include <algorithm>
#include <utility>

namespace ruvo {

ProxyHealth::ProxyHealth(std::uint16_t proxyPort, std::uint16_t directPort, DeathCallback onDeath)
    : m_onDeath(std::move(onDeath))
{
    m_inbounds[0].port = proxyPort;
    m_inbounds[1].port = directPort;
}

ProxyHealth::Inbound *ProxyHealth::find(std::uint16_t port)
{
    const auto found = std::ranges::find(m_inbounds, port, &Inbound::port);
    return found == m_inbounds.end() ? nullptr : &*found;
}

void ProxyHealth::note(std::uint16_t port, ProxySign sign)
{
    Inbound *const inbound = find(port);
    // Every connection comes by here. One that succeeds while another one fails may be taken for the earlier of the
    // two, which it may have been.
    if (!inbound || (sign == ProxySign::Accepted && !inbound->isWatched.load(std::memory_order_relaxed)))
        return;
    const std::lock_guard lock(m_mutex);
    if (sign == ProxySign::Accepted)
        noteSuccess(*inbound);
    else
        noteFailure(*inbound);
    update();
}

void ProxyHealth::noteFailure(Inbound &inbound)
{
    if (inbound.isReportedDead)
        return;
    inbound.failures = std::min(inbound.failures + 1, failureLimit);
    suspect(inbound);
}

/// Has the inbound checked if there is reason to.
void ProxyHealth::suspect(Inbound &inbound)
{
    if (m_series == Series::None && inbound.check == Check::None && inbound.failures == failureLimit)
        inbound.check = Check::Due;
}

void ProxyHealth::noteSuccess(Inbound &inbound)
{
    inbound.failures = 0;
    inbound.isReportedDead = false;
    if (inbound.check == Check::Due)
        inbound.check = Check::None;
    else if (inbound.check == Check::Running)
        inbound.check = Check::Void;
    // The series goes on until one of its own checks succeeds: what a connection has seen may be the old proxy's last
    // word, told late.
    if (&inbound == &main()) {
        m_checksInSeries = 0;
        m_failuresInSeries = 0;
    }
}

std::optional<std::uint16_t> ProxyHealth::takeDueCheck(SteadyTime now)
{
    if (now < m_due.load(std::memory_order_relaxed))
        return std::nullopt;
    const std::lock_guard lock(m_mutex);
    if (m_series == Series::Running && main().check == Check::None && now >= m_nextInSeries) {
        m_nextInSeries = now + checkInterval;
        main().check = Check::Due;
    }
    const auto due = std::ranges::find(m_inbounds, Check::Due, &Inbound::check);
    if (due == m_inbounds.end())
        return std::nullopt;
    due->check = Check::Running;
    update();
    return due->port;
}

void ProxyHealth::noteChecked(std::uint16_t port, std::optional<ProxySign> sign)
{
    Inbound *const inbound = find(port);
    if (!inbound)
        return;
    bool isNews = false;
    {
        const std::lock_guard lock(m_mutex);
        const Check check = std::exchange(inbound->check, Check::None);
        if (check == Check::Running)
            isNews = m_series == Series::None ? judgeCheck(*inbound, sign) : judgeSeries(sign);
        suspect(*inbound);
        update();
    }
    if (isNews && m_onDeath)
        m_onDeath(port);
}

/// True if a death is to be told of.
bool ProxyHealth::judgeCheck(Inbound &inbound, std::optional<ProxySign> sign)
{
    if (sign == ProxySign::Failed)
        return declareDead(inbound);
    if (sign == ProxySign::Accepted)
        noteSuccess(inbound);
    else
        inbound.failures = failureLimit - 1; // the next failure has it checked again
    return false;
}

bool ProxyHealth::judgeSeries(std::optional<ProxySign> sign)
{
    if (sign == ProxySign::Accepted) {
        noteSuccess(main());
        endSeries();
        return false;
    }
    if (sign == ProxySign::Failed)
        ++m_failuresInSeries;
    if (++m_checksInSeries < checkLimit)
        return false;
    const bool isDead = m_failuresInSeries == checkLimit;
    endSeries();
    return isDead && declareDead(main());
}

/// True if that is to be told of.
bool ProxyHealth::declareDead(Inbound &inbound)
{
    inbound.failures = 0;
    const bool isKnown = std::ranges::any_of(m_inbounds, &Inbound::isReportedDead);
    if (!isKnown)
        inbound.isReportedDead = true;
    return !isKnown;
}

void ProxyHealth::noteReset()
{
    const std::lock_guard lock(m_mutex);
    beginSeries(Series::Awaited);
    update();
}

void ProxyHealth::noteReady(SteadyTime now)
{
    const std::lock_guard lock(m_mutex);
    beginSeries(Series::Running);
    m_nextInSeries = now;
    update();
}

/// What was seen, and what is being checked, was the proxy before.
void ProxyHealth::beginSeries(Series series)
{
    for (Inbound &inbound : m_inbounds) {
        inbound.failures = 0;
        if (inbound.check == Check::Due)
            inbound.check = Check::None;
        else if (inbound.check == Check::Running)
            inbound.check = Check::Void;
    }
    m_series = series;
    m_checksInSeries = 0;
    m_failuresInSeries = 0;
}

/// What failed while the proxy came up says nothing of what it is now; its inbounds do not open all at once.
void ProxyHealth::endSeries()
{
    m_series = Series::None;
    for (Inbound &inbound : m_inbounds)
        inbound.failures = 0;
}

/// After every change.
void ProxyHealth::update()
{
    SteadyTime due = SteadyTime::max();
    if (m_series == Series::Running && main().check == Check::None)
        due = m_nextInSeries;
    for (Inbound &inbound : m_inbounds) {
        if (inbound.check == Check::Due)
            due = SteadyTime::min();
        const bool isInSeries = m_series != Series::None && &inbound == &main();
        inbound.isWatched =
            inbound.failures > 0 || inbound.isReportedDead || inbound.check != Check::None || isInSeries;
    }
    m_due = due;
}

} // namespace ruvo
