#include "wintun/logger.h"

#include "common/windows_handles.h"

#include <atomic>

namespace ruvo::winehost {

namespace {

std::atomic<WINTUN_LOGGER_CALLBACK> s_logger = nullptr;

DWORD64 timestamp()
{
    FILETIME time;
    GetSystemTimeAsFileTime(&time);
    return (static_cast<DWORD64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

} // namespace

void setLogger(WINTUN_LOGGER_CALLBACK logger)
{
    s_logger = logger;
}

void logLine(WINTUN_LOGGER_LEVEL level, const std::wstring &text)
{
    const LastErrorKeeper keeper;
    if (const WINTUN_LOGGER_CALLBACK logger = s_logger.load())
        logger(level, timestamp(), text.c_str());
}

} // namespace ruvo::winehost
