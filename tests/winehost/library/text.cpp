#include "text.h"

#include <windows.h>

#include <algorithm>
#include <charconv>
#include <cstddef>

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

// Without streams: their locale takes the compiler's locks, which leave handles behind each time that a DLL that has
// used them is freed.
std::vector<std::vector<std::string>> wordsOfLines(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\v\f";
    std::vector<std::vector<std::string>> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        line = line.substr(0, line.find('#'));
        std::vector<std::string> words;
        for (std::size_t start = line.find_first_not_of(blanks); start != line.npos;
             start = line.find_first_not_of(blanks)) {
            line.remove_prefix(start);
            const std::size_t size = std::min(line.find_first_of(blanks), line.size());
            words.emplace_back(line.substr(0, size));
            line.remove_prefix(size);
        }
        if (!words.empty())
            lines.push_back(std::move(words));
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
