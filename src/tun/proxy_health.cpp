#include "tun/proxy_health.h"

#include <algorithm>
#include <exception>
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

void ProxyHealth::note(std::uint16_t port, const ProxySighting &sighting)
{
    Inbound *const inbound = find(port);
    const bool isAccepted = sighting.sign == ProxySign::Accepted;
    // Every connection comes by here. One that succeeds while another one fails may be taken for the earlier of the
    // two, which it may have been.
    if (!inbound || (isAccepted && !inbound->isWatched.load(std::memory_order_relaxed)))
        return;
    const std::lock_guard lock(m_mutex);
    if (isAccepted)
        noteSuccess(*inbound, sighting.at);
    else
        noteFailure(*inbound, sighting.at);
    update();
}

/// What fails while the proxy comes up says nothing of what it is afterwards.
void ProxyHealth::noteFailure(Inbound &inbound, SteadyTime at)
{
    if (inbound.deadSince || m_series != Series::None || at < m_patientUntil)
        return;
    inbound.failures.add(at);
    suspect(inbound);
}

/// Has the inbound checked if there is reason to.
void ProxyHealth::suspect(Inbound &inbound)
{
    if (m_series == Series::None && inbound.check == Check::None && inbound.failures.isFull())
        inbound.check = Check::Due;
}

void ProxyHealth::noteSuccess(Inbound &inbound, SteadyTime at)
{
    if (at < m_lastReset)
        return;
    inbound.failures.forgetUntil(at);
    if (inbound.deadSince && at >= *inbound.deadSince)
        forgetDeath(inbound);
    if (inbound.otherDeadSince && at >= *inbound.otherDeadSince)
        inbound.otherDeadSince.reset();

    const bool isUnfounded = m_series == Series::None && !inbound.failures.isFull();
    if (inbound.check == Check::Due && isUnfounded)
        inbound.check = Check::None;
    else if (inbound.check == Check::Running && (isUnfounded || at >= inbound.checkBegan))
        inbound.check = Check::Beaten;
    // The series goes on until one of its own checks succeeds: what a connection has seen may be the old proxy's last
    // word.
    if (&inbound == &main()) {
        m_checksInSeries.forgetUntil(at);
        m_failuresInSeries.forgetUntil(at);
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
    due->checkBegan = now;
    update();
    return due->port;
}

void ProxyHealth::noteChecked(std::uint16_t port, const std::optional<ProxySighting> &outcome)
{
    Inbound *const inbound = find(port);
    if (!inbound)
        return;
    bool isNews = false;
    {
        const std::lock_guard lock(m_mutex);
        const Check check = std::exchange(inbound->check, Check::None);
        const bool isGood = outcome && outcome->sign == ProxySign::Accepted;
        if (isGood && check != Check::Void)
            noteGoodCheck(*inbound, outcome->at);
        else if (check == Check::Running)
            isNews = m_series == Series::None ? judgeCheck(*inbound, outcome) : judgeSeries(outcome);
        suspect(*inbound);
        update();
    }
    if (isNews)
        tellOfDeath(*inbound);
}

/// A death that nobody could be told of, for want of memory, is as if it had not been found.
void ProxyHealth::tellOfDeath(Inbound &inbound)
{
    try {
        if (m_onDeath)
            m_onDeath(inbound.port);
    } catch (const std::exception &) {
        const std::lock_guard lock(m_mutex);
        forgetDeath(inbound);
        update();
    }
}

/// A series ends by it: while one runs, nothing but the main inbound is checked.
void ProxyHealth::noteGoodCheck(Inbound &inbound, SteadyTime at)
{
    noteSuccess(inbound, at);
    m_series = Series::None;
}

/// Of a check that has failed, or told nothing. True if a death is to be told of.
bool ProxyHealth::judgeCheck(Inbound &inbound, const std::optional<ProxySighting> &outcome)
{
    if (outcome)
        return declareDead(inbound, outcome->at);
    inbound.failures.forgetOne(); // the next failure has it checked again
    return false;
}

/// The same for a check of the series.
bool ProxyHealth::judgeSeries(const std::optional<ProxySighting> &outcome)
{
    const SteadyTime began = main().checkBegan;
    m_checksInSeries.add(began);
    if (outcome)
        m_failuresInSeries.add(began);
    if (!m_checksInSeries.isFull())
        return false;
    m_series = Series::None;
    return outcome && m_failuresInSeries.isFull() && declareDead(main(), outcome->at);
}

/// True if that is to be told of.
bool ProxyHealth::declareDead(Inbound &inbound, SteadyTime at)
{
    inbound.failures.clear();
    if (inbound.deadSince || inbound.otherDeadSince)
        return false;
    inbound.deadSince = at;
    otherThan(inbound).otherDeadSince = at;
    return true;
}

void ProxyHealth::forgetDeath(Inbound &inbound)
{
    inbound.deadSince.reset();
    otherThan(inbound).otherDeadSince.reset();
}

void ProxyHealth::noteReset(SteadyTime now)
{
    const std::lock_guard lock(m_mutex);
    m_lastReset = now;
    beginSeries(Series::Awaited);
    update();
}

void ProxyHealth::noteReady(SteadyTime now)
{
    const std::lock_guard lock(m_mutex);
    m_patientUntil = now + patience;
    beginSeries(Series::Running);
    m_nextInSeries = now;
    update();
}

/// What was seen, and what is being checked, was the proxy before.
void ProxyHealth::beginSeries(Series series)
{
    for (Inbound &inbound : m_inbounds) {
        inbound.failures.clear();
        if (inbound.check == Check::Due)
            inbound.check = Check::None;
        else if (inbound.check != Check::None)
            inbound.check = Check::Void;
    }
    m_series = series;
    m_checksInSeries.clear();
    m_failuresInSeries.clear();
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
        inbound.isWatched = !inbound.failures.isEmpty() || inbound.check != Check::None || isInSeries
                            || inbound.deadSince || inbound.otherDeadSince;
    }
    m_due = due;
}

} // namespace ruvo
