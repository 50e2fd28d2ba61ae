#include "netconfig/socket_owners.h"

#include "kernel/linux_processes.h"
#include "library/lock.h"
#include "library/process_list.h"
#include "netconfig/socket_descriptor.h"

#include "common/windows_handles.h"

#include <array>
#include <atomic>
#include <bit>
#include <mutex>
#include <string_view>

namespace ruvo::winehost {

namespace {

/// No process id of Windows is that large. The rest is the socket's inode, which is far below.
constexpr DWORD deputyMark = 0x80000000;

/// Inodes are given out one after the other: of the latest 65,536 sockets of the machine each has a place of its own.
std::array<std::atomic<std::uint32_t>, 65536> s_ownSockets;

std::atomic<std::uint32_t> &placeOf(std::uint32_t inode)
{
    return s_ownSockets[inode % s_ownSockets.size()];
}

/// Whoever opened the last connection is likely to open the next.
std::atomic<int> s_lastLinuxOwner = 0;

/// A search makes copies of other programs' sockets in this process. Another thread's search would take the one that
/// it looks for for a socket of this process.
Lock s_searching;

/// Wine's programs and its server: they hold descriptors of sockets that are not theirs.
bool isOfWine(std::string_view executable)
{
    return executable.substr(executable.rfind('/') + 1).starts_with("wine");
}

bool ownsAsProgramOfLinux(int process, std::uint32_t inode)
{
    const auto executable = executableOf(process);
    return executable && !isOfWine(*executable) && holdsSocket(process, inode);
}

/// Children inherit sockets: it is the oldest of those that hold it who has opened it.
int openerOf(std::uint32_t inode, int holder)
{
    for (int parent = parentOf(holder); parent != 0 && ownsAsProgramOfLinux(parent, inode); parent = parentOf(holder))
        holder = parent;
    return holder;
}

int findLinuxOwner(std::uint32_t inode)
{
    if (const int last = s_lastLinuxOwner; last != 0 && ownsAsProgramOfLinux(last, inode))
        return openerOf(inode, last);
    for (const int process : linuxProcesses()) {
        if (ownsAsProgramOfLinux(process, inode)) {
            const int opener = openerOf(inode, process);
            s_lastLinuxOwner = opener;
            return opener;
        }
    }
    return 0;
}

bool isSocketWith(HANDLE process, HANDLE handle, std::uint32_t inode)
{
    KernelHandle copy;
    if (!DuplicateHandle(process, handle, GetCurrentProcess(), copy.out(), 0, FALSE, DUPLICATE_SAME_ACCESS))
        return false;
    const Descriptor descriptor = descriptorOf(copy.get());
    return descriptor && ((inodeOf(descriptor.get()) ^ inode) & ~deputyMark) == 0;
}

/// Looks at copies of all handles that other processes have.
DWORD findWindowsOwner(std::uint32_t inode)
{
    for (const RunningProcess &process : runningProcesses()) {
        if (process.pid == GetCurrentProcessId())
            continue;
        const KernelHandle opened(OpenProcess(PROCESS_DUP_HANDLE, FALSE, process.pid));
        const auto isIt = [&](HANDLE handle) { return isSocketWith(opened.get(), handle, inode); };
        if (opened && anyHandlePlace(process, isIt))
            return process.pid;
    }
    return 0;
}

} // namespace

DWORD ownerOf(std::uint32_t inode)
{
    if (inode == 0)
        return 0;
    return placeOf(inode) == inode ? GetCurrentProcessId() : inode | deputyMark;
}

void noteOwnSocket(const Descriptor &socket)
{
    if (!socket)
        return;
    if (const std::uint32_t inode = inodeOf(socket.get()))
        placeOf(inode) = inode;
}

bool isDeputy(DWORD process)
{
    return (process & deputyMark) != 0;
}

std::optional<SocketOwner> findOwner(DWORD deputy)
{
    const std::uint32_t inode = deputy & ~deputyMark;
    const std::lock_guard lock(s_searching);
    if (const int process = findLinuxOwner(inode))
        return SocketOwner{0, process};
    // One that was never bound or connected by name: a copy of its descriptor is in this process once it was used.
    if (holdsSocket(ownLinuxProcess(), inode))
        return SocketOwner{GetCurrentProcessId(), 0};
    if (const DWORD process = findWindowsOwner(inode))
        return SocketOwner{process, 0};
    return std::nullopt;
}

} // namespace ruvo::winehost
