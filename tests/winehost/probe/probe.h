#pragma once

// What each command of winprobe does: prints JSON lines to standard output; 0 for done, 1 for "it failed" (the line
// holds "error", the Windows error).

#include <string>
#include <vector>

namespace ruvo::winehost {

using Arguments = std::vector<std::wstring>;

/// processes [NAME]: the processes that run, or those of an executable, with their handles and threads.
int listProcesses(const Arguments &arguments);
/// pipe NAME: whether a pipe of that name exists, and whether an instance of it waits for a client.
int lookAtPipe(const Arguments &arguments);
/// service NAME: how the service is configured, and its state.
int describeService(const Arguments &arguments);
/// start NAME MS [stop]: starts the service and prints each state that it goes through until it runs or has stopped;
/// with "stop", stops it in the instant in which it runs.
int startService(const Arguments &arguments);
/// control NAME CODE: sends the service a control.
int controlService(const Arguments &arguments);

/// keep: keeps the prefix's server and desktop up until standard input ends; prints a line once they are there.
int keepAlive(const Arguments &arguments);

} // namespace ruvo::winehost
