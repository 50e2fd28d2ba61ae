#pragma once

#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "tun/latest_moments.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace ruvo {

/// Judges from what connections to the proxy come to whether it still lives, inbound by inbound.
///
/// Five failures on a port with no success between make the port suspect, and a check of it due; if that fails too,
/// the port is dead. After a reset failures suspect nobody for some seconds: the proxy may just be starting. Instead
/// the main inbound is checked once a second, and is dead only if all of these checks fail. Of a death is told once,
/// until the port has lived again, and not if the port has not lived either since a death of the other one that was
/// told of: they belong to one proxy. Whoever does not use the proxy is never checked for its health.
///
/// A success counts for when it was seen, however late it is told of: it beats the failures and the death before it,
/// and none after it.
///
/// It makes no check itself: somebody asks which one is due, every few milliseconds, and says how it went. From any
/// thread; the mutex is held for a few assignments, and neither it nor any other over the callback. Nothing is
/// allocated here, and nothing thrown.
class ProxyHealth
{
public:
    static constexpr std::size_t failureLimit = 5;
    /// After a reset.
    static constexpr std::size_t checkLimit = 5;
    static constexpr std::chrono::seconds checkInterval{1};
    /// For the inbounds to open, which they do not all at once, and for an old proxy to be gone.
    static constexpr std::chrono::seconds patience{5};

    /// Told of the death of a port. If it throws, nobody has been told.
    using DeathCallback = std::function<void(std::uint16_t port)>;

    /// The main inbound and the one for what goes direct, which may be one and the same; in host order.
    ProxyHealth(std::uint16_t proxyPort, std::uint16_t directPort, DeathCallback onDeath);
    ProxyHealth(const ProxyHealth &) = delete;
    ProxyHealth &operator=(const ProxyHealth &) = delete;

    /// What a connection has seen. A look at a flag for a success on a port that has no failures.
    void note(std::uint16_t port, const ProxySighting &sighting);
    /// The port that has to be checked now, if one has to; the caller owes noteChecked. Ask again for the next one.
    /// Nothing else is due for that port meanwhile. A look at a moment when there is none.
    std::optional<std::uint16_t> takeDueCheck(SteadyTime now);
    /// How the check went; nothing if it has failed for a reason of this machine's.
    void noteChecked(std::uint16_t port, const std::optional<ProxySighting> &outcome);

    /// All connections are being reset, because the proxy has been: from here on failures suspect nobody, and what
    /// was seen before is forgotten.
    void noteReset(SteadyTime now);
    /// The proxy should be there again. The checks begin; failures count again when one has succeeded or the last one
    /// has failed, but not before `patience` has passed.
    void noteReady(SteadyTime now);

private:
    enum class Check {
        None,
        Due,
        Running,
        Beaten, ///< it runs, but there has been a success since it began: its failure does not matter
        Void,   ///< it runs, but there has been a reset since it began: its outcome does not matter
    };
    struct Inbound
    {
        std::uint16_t port = 0;
        /// A success changes something. Written under the mutex.
        std::atomic<bool> isWatched = false;
        LatestMoments<failureLimit> failures;
        Check check = Check::None;
        /// Of the last check.
        SteadyTime checkBegan;
        /// When its death was found that was told of; nothing once it lives.
        std::optional<SteadyTime> deadSince;
        /// When such a death of the other one was found; nothing once either lives.
        std::optional<SteadyTime> otherDeadSince;
    };
    /// Of the checks after a reset.
    enum class Series { None, Awaited, Running };

    Inbound &main() { return m_inbounds[0]; }
    Inbound *find(std::uint16_t port);
    Inbound &otherThan(const Inbound &inbound) { return m_inbounds[&inbound == &main() ? 1 : 0]; }
    void tellOfDeath(Inbound &inbound);
    // All under m_mutex.
    void noteFailure(Inbound &inbound, SteadyTime at);
    void noteSuccess(Inbound &inbound, SteadyTime at);
    void noteGoodCheck(Inbound &inbound, SteadyTime at);
    bool judgeCheck(Inbound &inbound, const std::optional<ProxySighting> &outcome);
    bool judgeSeries(const std::optional<ProxySighting> &outcome);
    bool declareDead(Inbound &inbound, SteadyTime at);
    void forgetDeath(Inbound &inbound);
    void suspect(Inbound &inbound);
    void beginSeries(Series series);
    void update();

    const DeathCallback m_onDeath;
    /// When a check is due: in the past if one is due already. Written under the mutex.
    std::atomic<SteadyTime> m_due = SteadyTime::max();

    std::mutex m_mutex;
    /// The main one first. The second one is out of use if both have the same port.
    std::array<Inbound, 2> m_inbounds;
    SteadyTime m_lastReset = SteadyTime::min();
    /// Failures from before that suspect nobody.
    SteadyTime m_patientUntil = SteadyTime::min();
    Series m_series = Series::None;
    SteadyTime m_nextInSeries;
    /// When they began.
    LatestMoments<checkLimit> m_checksInSeries;
    LatestMoments<checkLimit> m_failuresInSeries;
};

} // namespace ruvo
