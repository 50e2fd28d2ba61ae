#pragma once

#include "wintun/wintun_api.h"

#include <string>

namespace ruvo::winehost {

/// The program's logger, if it has set one. Any thread.
void setLogger(WINTUN_LOGGER_CALLBACK logger);
void logLine(WINTUN_LOGGER_LEVEL level, const std::wstring &text);

} // namespace ruvo::winehost
