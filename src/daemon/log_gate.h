#pragma once

#include "common/steady_clock.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <utility>

namespace ruvo {

/// Keeps threads away from a file that blocks (a share that went away, a lock that somebody holds on it): it is shut
/// while one that was let in has been inside for a second, and for five seconds after such a one.
///
/// From any thread; nobody waits here and no lock is taken.
class LogGate
{
public:
    using Duration = SteadyTime::duration;

    /// Who is inside for this long shuts the gate.
    static constexpr Duration patience = std::chrono::seconds(1);
    /// For how long the gate stays shut after that one has come out.
    static constexpr Duration restAfterwards = std::chrono::seconds(5);
    /// So many at a time are watched; more are let in all the same, as what holds one up holds these up too.
    static constexpr std::size_t watchedAtATime = 32;

    explicit LogGate(SteadyClock clock = steadyNow) : m_clock(std::move(clock)) {}

    /// Somebody inside; it has come out when this goes.
    class Pass
    {
    public:
        Pass(Pass &&other) noexcept;
        Pass(const Pass &) = delete;
        Pass &operator=(Pass) = delete;
        ~Pass();

    private:
        friend class LogGate;
        /// Nanoseconds of the clock at which somebody went in; 0: nobody is inside.
        using Slot = std::atomic<Duration::rep>;
        Pass(LogGate &gate, Slot *slot, SteadyTime since) : m_gate(&gate), m_slot(slot), m_since(since) {}

        LogGate *m_gate;
        Slot *m_slot;
        SteadyTime m_since;
    };

    /// Nothing while the gate is shut. The gate has to outlive the pass.
    std::optional<Pass> enter();

private:
    using Slot = Pass::Slot;

    bool isShut(SteadyTime now) const;
    void shutUntil(SteadyTime time);

    const SteadyClock m_clock;
    std::array<Slot, watchedAtATime> m_inside{};
    std::atomic<Duration::rep> m_shutUntil = Duration::min().count();
};

} // namespace ruvo
