#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ruvo::winehost {

/// The Linux ids of all processes of the machine, the youngest first (as far as ids tell).
std::vector<int> linuxProcesses();

/// The program that a process runs; nothing for one that has ended.
std::optional<std::string> executableOf(int process);

/// 0 if it has none that is to be seen here, or has ended.
int parentOf(int process);

/// Whether a process has a descriptor of the socket with that inode, in its lowest 31 bits.
bool holdsSocket(int process, std::uint32_t inode);

/// The inode of this process's own descriptor; 0 on failure.
std::uint32_t inodeOf(int descriptor);

int ownLinuxProcess();

} // namespace ruvo::winehost
