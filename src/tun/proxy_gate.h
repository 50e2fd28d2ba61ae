#pragma once

#include "common/steady_clock.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

namespace ruvo {

/// The tunnel's gate for packets: shut by a connection reset, and open again once the proxy has had time to come up.
///
/// From any thread; isOpen takes no lock. One who waits to open it gives up as soon as the gate is shut once more or
/// opened by somebody else: only the last closing counts.
class ProxyGate
{
public:
    static constexpr std::chrono::milliseconds delay{1000};
    static constexpr std::chrono::milliseconds defaultLongestWait{100};
    /// Which closing an opening belongs to.
    using Closing = std::uint64_t;

    /// A thread that waits does so by another clock: after `longestWait` at most it asks `clock` again.
    explicit ProxyGate(SteadyClock clock = steadyNow, std::chrono::milliseconds longestWait = defaultLongestWait);
    ProxyGate(const ProxyGate &) = delete;
    ProxyGate &operator=(const ProxyGate &) = delete;

    bool isOpen() const { return m_isOpen; }

    /// Shut from now on, until one of the following.
    Closing close();
    /// At once.
    void open();
    /// Waits for the delay, then opens it: for a thread of its own. False: this closing is not the last one any more,
    /// or it is open already.
    bool openAfterDelay(Closing closing);
    /// The same without a thread: openIfDue is asked again and again.
    void planOpening(Closing closing);
    /// True if it has just opened the gate as planned.
    bool openIfDue();

private:
    SteadyTime dueTime() const;
    bool isLast(Closing closing) const { return m_closing == closing && !m_isOpen; }

    const SteadyClock m_clock;
    const std::chrono::milliseconds m_longestWait;
    /// Written under the mutex.
    std::atomic<bool> m_isOpen = true;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Closing m_closing = 0;
    /// When openIfDue opens it.
    std::optional<SteadyTime> m_plannedFor;
};

} // namespace ruvo
