#pragma once

// What the child does with Ctrl+C.

#include "common/winsock_headers.h"

#include <optional>

namespace ruvo::winehost {

struct InterruptPlan
{
    bool ignore = false;
    bool print = false;
    std::optional<DWORD> exitCode;
    DWORD delayMs = 0;
};

/// True when Ctrl+C was switched off for this process by whoever started it. Ask before applyInterruptPlan().
bool interruptsIgnoredAtStart();

void applyInterruptPlan(const InterruptPlan &plan);

} // namespace ruvo::winehost
