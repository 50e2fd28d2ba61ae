#pragma once

#include <chrono>
#include <cstdint>

namespace ruvo {

/// Nanoseconds of the steady clock, as all times of sessions and flows are kept.
inline std::int64_t steadyNanoseconds()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace ruvo
