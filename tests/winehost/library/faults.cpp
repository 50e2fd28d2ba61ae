#include "faults.h"

#include "bench_folder.h"
#include "journal.h"
#include "kernel/file_version.h"
#include "lock.h"
#include "text.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ruvo::winehost {

namespace {

struct PlannedFault
{
    unsigned long first;
    bool andLater;
    std::optional<DWORD> error; ///< none: a delay
    DWORD delayMs;

    bool strikes(unsigned long call) const { return call == first || (andLater && call > first); }
};

struct Plan
{
    FileVersion version;
    std::string text;
    std::multimap<std::string, PlannedFault, std::less<>> faults;
    std::map<std::string, unsigned long, std::less<>> calls;
};

Lock s_lock;
Plan s_plan;
std::string s_path; // of the plan, as Linux has it

std::optional<PlannedFault> parseFault(const std::vector<std::string> &words)
{
    const bool isDelay = words.size() == 4 && words[2] == "delay";
    if (words.size() != 3 && !isDelay)
        return std::nullopt;
    std::string_view which = words[1];
    if (which == "*")
        which = "1+";
    const bool andLater = which.ends_with('+');
    if (andLater)
        which.remove_suffix(1);
    const auto first = toNumber(which);
    const auto number = toNumber(words.back());
    if (!first || *first == 0 || !number)
        return std::nullopt;
    const auto value = static_cast<DWORD>(*number);
    if (isDelay)
        return PlannedFault{*first, andLater, std::nullopt, value};
    return PlannedFault{*first, andLater, value, 0};
}

void complain(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    JournalEntry("faults.txt").add("not-understood", std::string_view(line));
}

/// Under the lock. A file that cannot be read changes nothing: an empty plan would let calls work that have to fail.
void refreshPlan()
{
    if (s_path.empty())
        s_path = linuxPathOf(L"faults.txt");
    // Looked at before it is read: what is written in between then shows at the next call.
    const FileVersion version = fileVersion(s_path);
    if (version == s_plan.version && version.isSettled())
        return;
    std::optional<std::string> text = readBenchFile(L"faults.txt");
    if (!text) {
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) {
            JournalEntry("faults.txt").add("unreadable", error);
            return;
        }
        text.emplace();
    }
    s_plan.version = version;
    if (*text == s_plan.text)
        return;
    s_plan = {version, std::move(*text), {}, {}};
    for (const auto &words : wordsOfLines(s_plan.text)) {
        if (const auto fault = parseFault(words))
            s_plan.faults.emplace(words[0], *fault);
        else
            complain(words);
    }
}

/// What stands in the plan for this call, which is counted.
PlannedOutcome nextOutcome(std::string_view function)
{
    const std::lock_guard lock(s_lock);
    refreshPlan();
    const auto [first, last] = s_plan.faults.equal_range(function);
    if (first == last)
        return {};
    const unsigned long call = ++s_plan.calls[std::string(function)];
    PlannedOutcome outcome;
    for (auto fault = first; fault != last; ++fault) {
        if (!fault->second.strikes(call))
            continue;
        outcome.delayedMs += fault->second.delayMs;
        if (!outcome.error)
            outcome.error = fault->second.error;
    }
    return outcome;
}

} // namespace

PlannedOutcome plannedOutcome(std::string_view function)
{
    const PlannedOutcome outcome = nextOutcome(function);
    // Without the lock: only this call is slow, those of other threads are not.
    if (outcome.delayedMs > 0)
        Sleep(outcome.delayedMs);
    return outcome;
}

void PacketFault::look(ULONGLONG now)
{
    m_looked.store(now, std::memory_order_relaxed);
    const std::lock_guard lock(s_lock);
    refreshPlan();
    m_planned.store(s_plan.faults.contains(m_function), std::memory_order_relaxed);
}

} // namespace ruvo::winehost
