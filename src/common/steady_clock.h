#pragma once

#include <chrono>
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

} // namespace ruvo
