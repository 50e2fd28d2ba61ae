#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

namespace ruvo::winehost {

/// In registry form: braces, hyphens, capital letters.
std::string guidText(const GUID &guid);
/// From registry form, in capital or small letters.
std::optional<GUID> parseGuid(std::string_view text);

} // namespace ruvo::winehost
