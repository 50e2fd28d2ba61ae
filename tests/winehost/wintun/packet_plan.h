#pragma once

#include "kernel/file_version.h"
#include "library/lock.h"

#include <windows.h>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

namespace ruvo::winehost {

/// What a test has planned for packets in the file `packets.txt`, a line each:
///
///     seed NUMBER            of everything that chance decides; the same seed, the same decisions
///     reorder PERCENT MOST   of the packets that come in, so many are overtaken by 1 to MOST of those behind them
///     duplicate PERCENT MOST so many come in again behind 1 to MOST others
///     full MS OPEN           the send ring is full for MS milliseconds, then has room for OPEN, and so on
struct PacketPlan
{
    struct Chance
    {
        unsigned long percent = 0;
        unsigned long most = 1;

        bool operator==(const Chance &) const = default;
    };

    unsigned long seed = 1;
    Chance reorder;
    Chance duplicate;
    unsigned long fullMs = 0;
    unsigned long openMs = 0;

    bool operator==(const PacketPlan &) const = default;
    bool disorders() const { return reorder.percent > 0 || duplicate.percent > 0; }
    bool isFullAt(ULONGLONG now) const { return fullMs > 0 && now % (fullMs + openMs) < fullMs; }
};

/// A line that is not understood, or without its numbers, is left out and stands in the journal.
PacketPlan parsePacketPlan(std::string_view text);

/// The plan as it stands in the file, which is looked at 20 times a second at most. Any thread.
class PlannedPackets
{
public:
    PacketPlan current();
    /// At the start of what a test looks at: what stands in the file now holds from the first packet on.
    void lookNow() { look(GetTickCount64()); }

private:
    static constexpr ULONGLONG lookEveryMs = 50;
    void look(ULONGLONG now);

    std::atomic<ULONGLONG> m_looked = 0;
    std::atomic<bool> m_isPlanned = false;
    Lock m_lock;
    std::string m_path; // of the file, as Linux has it
    FileVersion m_version;
    std::optional<std::string> m_text;
    PacketPlan m_plan;
};

PlannedPackets &plannedPackets();

} // namespace ruvo::winehost
