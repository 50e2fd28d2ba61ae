#pragma once

#include <string_view>

namespace ruvo::winehost {

/// Writes down that the program broke a rule of the interface ("misuse" in the journal; the first 50 times), where
/// the real library would have read freed memory or worse.
void noteMisuse(std::string_view function, std::string_view what);

} // namespace ruvo::winehost
