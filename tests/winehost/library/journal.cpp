#include "journal.h"

#include "bench_folder.h"
#include "kernel/system_call.h"

#include <windows.h>

namespace ruvo::winehost {

namespace {

/// Milliseconds since 1970, as the clocks of the tests count.
unsigned long long nowMs()
{
    constexpr unsigned long long ticksTo1970 = 116444736000000000ULL;
    constexpr unsigned long long ticksPerMs = 10000;
    FILETIME time;
    GetSystemTimeAsFileTime(&time);
    const unsigned long long ticks =
        (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return (ticks - ticksTo1970) / ticksPerMs;
}

} // namespace

JournalEntry::JournalEntry(std::string_view call)
{
    add("time-ms", nowMs());
    add("pid", GetCurrentProcessId());
    add("thread", GetCurrentThreadId());
    add("call", call);
}

JournalEntry::~JournalEntry()
{
    // Several threads and processes write: the kernel appends a line in one step, which Wine does not.
    constexpr int appendTo =
        open_flags::writeOnly | open_flags::append | open_flags::create | open_flags::closeOnExec;
    constexpr int everybodyReads = 0644;
    const Descriptor file(
        systemCall(SystemCall::open, linuxPathOf(L"journal.jsonl").c_str(), appendTo, everybodyReads));
    const std::string line = text() + '\n';
    systemCall(SystemCall::write, file.get(), line.data(), line.size());
}

void JournalEntry::addResult(bool result)
{
    add("result", result);
    if (!result)
        add("error", GetLastError());
}

} // namespace ruvo::winehost
