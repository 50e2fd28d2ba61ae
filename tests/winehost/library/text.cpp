#include "text.h"

#include <windows.h>

#include <charconv>
#include <sstream>

namespace ruvo::winehost {

std::string toUtf8(std::wstring_view text)
{
    const int length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(), size, nullptr, nullptr);
    return utf8;
}

std::wstring toWide(std::string_view text)
{
    const int length = static_cast<int>(text.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    return wide;
}

std::vector<std::vector<std::string>> wordsOfLines(std::string_view text)
{
    std::vector<std::vector<std::string>> lines;
    std::istringstream stream{std::string(text)};
    for (std::string line; std::getline(stream, line);) {
        line.resize(std::min(line.find('#'), line.size()));
        std::istringstream words(line);
        std::vector<std::string> found;
        for (std::string word; words >> word;)
            found.push_back(word);
        if (!found.empty())
            lines.push_back(std::move(found));
    }
    return lines;
}

std::optional<unsigned long> toNumber(std::string_view word)
{
    unsigned long number = 0;
    const char *end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stopped != end)
        return std::nullopt;
    return number;
}

} // namespace ruvo::winehost
