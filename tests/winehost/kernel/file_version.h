#pragma once

#include <cstdint>
#include <string>

namespace ruvo::winehost {

/// Which file stands under a name, and since when. Costs one call of the kernel, without opening or reading.
struct FileVersion
{
    std::uint64_t inode = 0; ///< 0: there is no such file
    std::uint64_t size = 0;
    std::uint64_t changedNs = 0; ///< since 1970

    bool operator==(const FileVersion &) const = default;

    /// Before 6.13, Linux stamps files by a clock that ticks every few milliseconds: of a file that changed just now,
    /// the next change may leave the same version.
    bool isSettled() const;
};

/// `path` is Linux's. Leaves the last error alone.
FileVersion fileVersion(const std::string &path);

} // namespace ruvo::winehost
