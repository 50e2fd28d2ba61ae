#pragma once

#include "filtering/flow.h"

namespace ruvo::winehost {

// The kernel applies the engine's filters to programs of Linux. Wine's programs all look the same to it (their
// sockets are the Wine server's), so these ask the engine themselves before they connect or send, on behalf of the
// program that they are. A verdict is remembered for 50 ms, and forgotten at once when this process changes a filter.
//
// Where no engine listens everything passes; that is looked at once a second. All functions: any thread.

/// False for what a filter blocks: a connection, or the datagrams of a UDP socket, to `remote`. What makes no sense
/// (a bad address, no socket) passes, as the call itself will fail.
bool passesFilters(SOCKET socket, const sockaddr *remote, int size);
/// The same where the socket was looked at already, which takes most of the time.
bool passesFilters(const SocketFacts &facts, const sockaddr *remote, int size);
/// The same for each of many datagrams: looks at the socket only when the verdict is not known.
bool sendingPasses(SOCKET socket, const sockaddr *remote, int size);

/// The calls themselves, with WSAEACCES for what is blocked.
int judgedConnect(SOCKET socket, const sockaddr *remote, int size);
int judgedSendTo(SOCKET socket, const char *data, int dataSize, int flags, const sockaddr *remote, int size);

void forgetVerdicts();

} // namespace ruvo::winehost
