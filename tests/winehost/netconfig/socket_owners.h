#pragma once

#include "kernel/system_call.h"

#include "common/winsock_headers.h"

#include <cstdint>
#include <optional>

namespace ruvo::winehost {

// Who owns a socket. Linux tells only by searching: a program of Linux holds its socket itself, for a program of
// Windows the Wine server does. That takes up to some 10 ms, and each new connection brings several sockets that
// nobody will ask about. So a table names a deputy as owner of a foreign socket, a number in place of a process id,
// and the search is made when that "process" is opened.

/// This process's id for its own sockets, 0 for those that nobody holds, else the deputy.
DWORD ownerOf(std::uint32_t inode);

/// Notes a socket of this process, before others can see where it goes.
void noteOwnSocket(const Descriptor &socket);

/// A process of Windows, or, where that is 0, one of Linux.
struct SocketOwner
{
    DWORD windowsProcess = 0;
    int linuxProcess = 0;
};

bool isDeputy(DWORD process);
/// Whom a deputy stands for. Nothing if the socket is gone meanwhile.
std::optional<SocketOwner> findOwner(DWORD deputy);

} // namespace ruvo::winehost
