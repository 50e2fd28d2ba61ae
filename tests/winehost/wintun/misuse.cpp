#include "wintun/misuse.h"

#include "library/journal.h"

#include <atomic>

namespace ruvo::winehost {

void noteMisuse(std::string_view function, std::string_view what)
{
    static std::atomic<int> s_count = 0;
    constexpr int mostLines = 50;
    if (s_count.fetch_add(1) < mostLines)
        JournalEntry(function).add("misuse", what);
}

} // namespace ruvo::winehost
