#pragma once

#include <chrono>
#include <functional>

namespace ruvo::test {

/// Runs the event loop until `condition` holds; false if it does not within `timeout`. The time-out is for a
/// broken build, not a measure: it is long enough for a slow machine.
bool waitUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout = std::chrono::seconds(15));

/// Runs the event loop for what is already waiting in it, deferred deletions included.
void processPending();

} // namespace ruvo::test
