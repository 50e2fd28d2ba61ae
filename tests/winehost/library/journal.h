#pragma once

#include "json_line.h"

namespace ruvo::winehost {

/// The record of one call, one line of `journal.jsonl`: time, process, thread, name of the call, then what the
/// substitute adds. Written when it goes out of scope; the thread's last error stays as it was.
class JournalEntry : public JsonLine
{
public:
    explicit JournalEntry(std::string_view call);
    ~JournalEntry();
    JournalEntry(const JournalEntry &) = delete;
    JournalEntry &operator=(const JournalEntry &) = delete;

    /// Adds "result", and for a failed call "error" with the last error.
    void addResult(bool result);
};

} // namespace ruvo::winehost
