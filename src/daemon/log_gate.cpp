#include "daemon/log_gate.h"

#include <algorithm>
#include <utility>

namespace ruvo {

LogGate::Pass::Pass(Pass &&other) noexcept
    : m_gate(std::exchange(other.m_gate, nullptr)), m_slot(other.m_slot), m_since(other.m_since)
{}

LogGate::Pass::~Pass()
{
    if (!m_gate)
        return;
    const SteadyTime now = m_gate->m_clock();
    // Before the slot is free: between the two the gate would look open to others.
    if (now - m_since >= patience)
        m_gate->shutUntil(now + restAfterwards);
    if (m_slot)
        m_slot->store(0);
}

std::optional<LogGate::Pass> LogGate::enter()
{
    const SteadyTime now = m_clock();
    if (isShut(now))
        return std::nullopt;
    // 0 means that nobody is inside.
    const Duration::rep since = std::max<Duration::rep>(now.time_since_epoch().count(), 1);
    for (Slot &slot : m_inside) {
        Duration::rep nobody = 0;
        if (slot.compare_exchange_strong(nobody, since))
            return Pass(*this, &slot, now);
    }
    return Pass(*this, nullptr, now);
}

bool LogGate::isShut(SteadyTime now) const
{
    const Duration::rep count = now.time_since_epoch().count();
    if (count < m_shutUntil)
        return true;
    return std::ranges::any_of(m_inside, [&](const Slot &slot) {
        const Duration::rep since = slot;
        return since != 0 && count - since >= patience.count();
    });
}

void LogGate::shutUntil(SteadyTime time)
{
    const Duration::rep wanted = time.time_since_epoch().count();
    Duration::rep current = m_shutUntil;
    while (current < wanted && !m_shutUntil.compare_exchange_weak(current, wanted)) {}
}

} // namespace ruvo
