#pragma once

namespace ruvo {

/// The daemon from its construction to its end, on the service thread: application, log, RuvoDaemon and its
/// event loop. Reports running and stopped to the service manager; returns when all of it is gone.
/// Reports nothing if the daemon cannot start.
void runDaemon(int argc, wchar_t **argv);

} // namespace ruvo
