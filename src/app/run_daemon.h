#pragma once

#include <functional>
#include <memory>

namespace ruvo {

class RuvoDaemon;

/// Makes the daemon, on the service thread.
using DaemonFactory = std::function<std::shared_ptr<RuvoDaemon>()>;

/// The daemon as it is.
std::shared_ptr<RuvoDaemon> makeDaemon();

/// The daemon from its construction to its end, on the service thread: application, log, RuvoDaemon and its
/// event loop. Reports running and stopped to the service manager; returns when all of it is gone.
/// Reports nothing if the daemon cannot start.
void runDaemon(int argc, wchar_t **argv, const DaemonFactory &make);

} // namespace ruvo
