#include "wintun/packet_plan.h"

#include "common/windows_handles.h"
#include "library/bench_folder.h"
#include "library/journal.h"
#include "library/text.h"

#include <mutex>
#include <string>
#include <vector>

namespace ruvo::winehost {

namespace {

PlannedPackets s_packets;

using Numbers = std::vector<unsigned long>;

std::optional<Numbers> numbersBehindName(const std::vector<std::string> &words)
{
    Numbers numbers;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const auto number = toNumber(words[i]);
        if (!number)
            return std::nullopt;
        numbers.push_back(*number);
    }
    return numbers;
}

bool take(PacketPlan &plan, const std::string &name, const Numbers &numbers)
{
    if (name == "seed" && numbers.size() == 1) {
        plan.seed = numbers[0];
    } else if (name == "reorder" && numbers.size() == 2 && numbers[1] > 0) {
        plan.reorder = {numbers[0], numbers[1]};
    } else if (name == "duplicate" && numbers.size() == 2 && numbers[1] > 0) {
        plan.duplicate = {numbers[0], numbers[1]};
    } else if (name == "full" && numbers.size() == 2) {
        plan.fullMs = numbers[0];
        plan.openMs = numbers[1];
    } else {
        return false;
    }
    return true;
}

} // namespace

PacketPlan parsePacketPlan(std::string_view text)
{
    PacketPlan plan;
    for (const auto &words : wordsOfLines(text)) {
        const auto numbers = numbersBehindName(words);
        if (!numbers || !take(plan, words[0], *numbers))
            JournalEntry("packets.txt").add("not-understood", std::string_view(words[0]));
    }
    return plan;
}

PacketPlan PlannedPackets::current()
{
    const ULONGLONG now = GetTickCount64();
    if (now - m_looked.load(std::memory_order_relaxed) >= lookEveryMs)
        look(now);
    if (!m_isPlanned.load(std::memory_order_relaxed)) [[likely]]
        return {};
    const std::lock_guard lock(m_lock);
    return m_plan;
}

void PlannedPackets::look(ULONGLONG now)
{
    m_looked.store(now, std::memory_order_relaxed);
    const ruvo::LastErrorKeeper keeper;
    const std::lock_guard lock(m_lock);
    if (m_path.empty())
        m_path = linuxPathOf(L"packets.txt");
    const FileVersion version = fileVersion(m_path);
    if (version == m_version && version.isSettled())
        return;
    const std::optional<std::string> text = readBenchFile(L"packets.txt");
    // One that is there and cannot be read just now changes nothing.
    if (!text && version.inode != 0)
        return;
    m_version = version;
    if (text == m_text)
        return;
    m_text = text;
    m_plan = text ? parsePacketPlan(*text) : PacketPlan();
    m_isPlanned.store(m_plan != PacketPlan(), std::memory_order_relaxed);
}

PlannedPackets &plannedPackets()
{
    return s_packets;
}

} // namespace ruvo::winehost
