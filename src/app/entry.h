#pragma once

namespace ruvo {

/// The process from its first thread: registers the service, removes it, or serves the service manager,
/// as the first argument says. Returns the process's exit status (0 or 1).
///
/// No Qt object may come to life on this thread: the service thread has to be Qt's main thread.
int runEntry(int argc, wchar_t **argv);

} // namespace ruvo
