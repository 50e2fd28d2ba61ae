#pragma once

#include <windows.h>

#include <atomic>
#include <optional>
#include <string_view>

namespace ruvo::winehost {

/// What a test has planned for one call.
struct PlannedOutcome
{
    std::optional<DWORD> error; ///< the call does nothing and fails with it
    DWORD delayedMs = 0;        ///< so long it has been held up already
};

/// The failures and delays that a test has planned, in `faults.txt`: "FUNCTION WHICH ERROR" or "FUNCTION WHICH delay
/// MS" a line, where WHICH is the number of the call ("2"), from that call on ("2+"), or every call ("*"). Calls are
/// counted from the moment that the file's text changed, in each process (and each DLL of the bench in it) by itself;
/// so a remark that changes starts the same plan anew. All delays that are planned for a call add up, of the errors
/// the first counts.
///
/// Called once for each call of `function`, before it does anything: returns after the delay. Any thread. Costs a
/// call of the kernel while the file is as it was.
PlannedOutcome plannedOutcome(std::string_view function);

/// The same for callers that have nothing to say of the delay: the error alone.
inline std::optional<DWORD> plannedFault(std::string_view function)
{
    return plannedOutcome(function).error;
}

/// The same for a function that is called for every packet, which cannot afford that: it looks at the file 20 times a
/// second only, and a call counts once the file that names it has been seen.
class PacketFault
{
public:
    explicit PacketFault(std::string_view function) : m_function(function) {}

    std::optional<DWORD> next()
    {
        const ULONGLONG now = GetTickCount64();
        if (now - m_looked.load(std::memory_order_relaxed) >= lookEveryMs)
            look(now);
        if (!m_planned.load(std::memory_order_relaxed)) [[likely]]
            return std::nullopt;
        return plannedFault(m_function);
    }
    /// At the start of what a test looks at: what stands in the file now holds from the first call on.
    void lookNow() { look(GetTickCount64()); }

private:
    static constexpr ULONGLONG lookEveryMs = 50;
    void look(ULONGLONG now);

    const std::string_view m_function;
    std::atomic<ULONGLONG> m_looked = 0;
    std::atomic<bool> m_planned = false;
};

} // namespace ruvo::winehost
