#pragma once

#include "common/proxy_sign.h"
#include "common/steady_clock.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

namespace ruvo {

/// Judges from what connections to the proxy come to whether it still lives, inbound by inbound.
///
/// Five failures on a port with no success between make the port suspect, and a check of it due; if that fails too,
/// the port is dead. After a reset failures suspect nobody: the proxy may just be starting. Instead the main inbound
/// is checked once a second, and is dead only if all of these checks fail. Of a death is told once, until the port
/// has lived again, and not while the other port is known to be dead: they belong to one proxy. Whoever does not use
/// the proxy is never checked for its health.
///
/// It makes no check itself: somebody asks which one is due, every few milliseconds, and says how it went. From any
/// thread; the mutex is held for a few assignments, and neither it nor any other over the callback.
class ProxyHealth
{
public:
    static constexpr unsigned failureLimit = 5;
    /// After a reset.
    static constexpr unsigned checkLimit = 5;
    static constexpr std::chrono::seconds checkInterval{1};

    /// Told of the death of a port.
    using DeathCallback = std::function<void(std::uint16_t port)>;

    /// The main inbound and the one for what goes direct, which may be one and the same; in host order.
    ProxyHealth(std::uint16_t proxyPort, std::uint16_t directPort, DeathCallback onDeath);
    ProxyHealth(const ProxyHealth &) = delete;
    ProxyHealth &operator=(const ProxyHealth &) = delete;

    /// What a connection has seen. A look at a flag for a success on a port that has no failures.
    void note(std::uint16_t port, ProxySign sign);
    /// The port that has to be checked now, if one has to; the caller owes noteChecked. Ask again for the next one.
    /// Nothing else is due for that port meanwhile. A look at a moment when there is none.
    std::optional<std::uint16_t> takeDueCheck(SteadyTime now);
    /// How the check went; nothing if it has failed for a reason of this machine's.
    void noteChecked(std::uint16_t port, std::optional<ProxySign> sign);

    /// All connections are being reset, because the proxy has been: from here on failures suspect nobody.
    void noteReset();
    /// The proxy should be there again. The checks begin, and when one succeeds or the last one has failed, failures
    /// count again.
    void noteReady(SteadyTime now);

private:
    enum class Check {
        None,
        Due,
        Running,
        Void, ///< it runs, but it began before what has been seen since: its outcome does not matter
    };
    struct Inbound
    {
        std::uint16_t port = 0;
        /// A success changes something. Written under the mutex.
        std::atomic<bool> isWatched = false;
        unsigned failures = 0;
        bool isReportedDead = false;
        Check check = Check::None;
    };
    /// Of the checks after a reset.
    enum class Series { None, Awaited, Running };

    Inbound &main() { return m_inbounds[0]; }
    Inbound *find(std::uint16_t port);
    // All under m_mutex.
    void noteFailure(Inbound &inbound);
    void noteSuccess(Inbound &inbound);
    bool judgeCheck(Inbound &inbound, std::optional<ProxySign> sign);
    bool judgeSeries(std::optional<ProxySign> sign);
    bool declareDead(Inbound &inbound);
    void suspect(Inbound &inbound);
    void beginSeries(Series series);
    void endSeries();
    void update();

    const DeathCallback m_onDeath;
    /// When a check is due: in the past if one is due already. Written under the mutex.
    std::atomic<SteadyTime> m_due = SteadyTime::max();

    std::mutex m_mutex;
    /// The main one first. The second one is out of use if both have the same port.
    std::array<Inbound, 2> m_inbounds;
    Series m_series = Series::None;
    SteadyTime m_nextInSeries;
    unsigned m_checksInSeries = 0;
    unsigned m_failuresInSeries = 0;
};

} // namespace ruvo
