#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace ruvo {

/// A moment of the clock that all expiries and time-outs here go by.
using SteadyTime = std::chrono::steady_clock::time_point;
/// Where a table or flow asks for the time: tests hand in one that they move themselves.
using SteadyClock = std::function<SteadyTime()>;

inline SteadyTime steadyNow()
{
    return std::chrono::steady_clock::now();
}

/// The same in nanoseconds.
inline std::int64_t steadyNanoseconds()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace ruvo
