#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::winehost {

std::string toUtf8(std::wstring_view text);
std::wstring toWide(std::string_view text);

/// The words of each line that has any; what follows a '#' is a remark.
std::vector<std::vector<std::string>> wordsOfLines(std::string_view text);

/// A whole word as decimal number.
std::optional<unsigned long> toNumber(std::string_view word);

} // namespace ruvo::winehost
