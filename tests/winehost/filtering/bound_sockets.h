#pragma once

#include "filtering/flow.h"

namespace ruvo::winehost {

// What was seen of a socket when it was bound, so that ConnectEx, which takes bound sockets only, need not look
// again: that would cost as much as a connection of Wine's takes altogether. Any thread.

void noteBoundSocket(SOCKET socket, const Descriptor &descriptor);

/// For a new socket: its handle may have been another's.
void forgetBoundSocket(SOCKET socket);

/// Nothing for a socket that was not noted, or too long ago: others have taken its place.
std::optional<SocketFacts> boundSocket(SOCKET socket);

} // namespace ruvo::winehost
