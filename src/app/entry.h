#pragma once

#include "app/run_daemon.h"

namespace ruvo {

/// The process from its first thread: registers the service, removes it, or serves the service manager,
/// as the first argument says, with the daemon that `make` makes. Returns the process's exit status (0 or 1).
///
/// The service thread has to be Qt's main thread, so no Qt object may come to life on this one before the
/// application exists there; even a log line makes one.
int runEntry(int argc, wchar_t **argv, const DaemonFactory &make = makeDaemon);

} // namespace ruvo
