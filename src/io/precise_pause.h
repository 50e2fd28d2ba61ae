#pragma once

#include <chrono>

namespace ruvo {

/// Holds this thread for about that long without using the processor. Sleep rounds a millisecond up to Windows' clock
/// tick, which is 15.6 ms unless some program has asked for a shorter one; this does not, from Windows 10 1803 on.
void precisePause(std::chrono::milliseconds time);

} // namespace ruvo
