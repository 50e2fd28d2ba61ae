#include "journal.h"

#include "bench_folder.h"
#include "common/windows_handles.h"

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
    const LastErrorKeeper keeper;
    // Several processes write: an append of one line in one call does not tear.
    const FileHandle file(CreateFileW((benchFolder() / L"journal.jsonl").c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return;
    const std::string line = text() + '\n';
    DWORD written = 0;
    WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

void JournalEntry::addResult(bool result)
{
    add("result", result);
    if (!result)
        add("error", GetLastError());
}

} // namespace ruvo::winehost
