#pragma once

#include "process/launch_context.h"
#include "process/process_info.h"

namespace ruvo {

/// Starts the child that `info` describes, in a console of its own (which is what a later Ctrl+C attaches to), with
/// the daemon's token, environment and desktop, and its standard streams in pipes. Null (and logged) on failure;
/// then no handle is left open. CreateProcessW.
LaunchContextPointer launchChild(const ProcessInfo &info);

} // namespace ruvo
