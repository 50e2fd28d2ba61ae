#include "netconfig/extra_adapters.h"

#include "library/bench_folder.h"
#include "library/guid_text.h"
#include "library/text.h"

namespace ruvo::winehost {

namespace {

std::optional<ShownAdapter> parseAdapter(const std::vector<std::string> &words)
{
    if (words.size() < 3 || (words[0] != "up" && words[0] != "down"))
        return std::nullopt;
    const auto guid = parseGuid(words[1]);
    if (!guid)
        return std::nullopt;
    std::string name = words[2];
    for (std::size_t i = 3; i < words.size(); ++i)
        name += " " + words[i];
    return ShownAdapter{*guid, toWide(name), L"Adapter of adapters.txt",
                        words[0] == "up" ? IfOperStatusUp : IfOperStatusDown};
}

} // namespace

std::vector<ShownAdapter> extraAdapters()
{
    std::vector<ShownAdapter> adapters;
    for (const auto &words : wordsOfLines(readBenchFile(L"adapters.txt").value_or(std::string()))) {
        if (auto adapter = parseAdapter(words))
            adapters.push_back(*std::move(adapter));
        else
            JournalEntry("adapters.txt").add("not-understood", std::string_view(words[0]));
    }
    return adapters;
}

} // namespace ruvo::winehost
