#include "kernel/file_version.h"

#include "kernel/system_call.h"

namespace ruvo::winehost {

namespace {

constexpr std::uint64_t nsPerSecond = 1'000'000'000;
constexpr std::uint64_t settledAfterNs = 50'000'000;

std::uint64_t nowNs()
{
    constexpr int realTime = 0; // CLOCK_REALTIME
    std::int64_t time[2] = {};
    systemCall(SystemCall::clockTime, realTime, time);
    return static_cast<std::uint64_t>(time[0]) * nsPerSecond + static_cast<std::uint64_t>(time[1]);
}

} // namespace

bool FileVersion::isSettled() const
{
    return inode == 0 || changedNs + settledAfterNs < nowNs();
}

FileVersion fileVersion(const std::string &path)
{
    // Linux's struct stat, in words of 8 bytes: the inode is the second, the size the seventh, the time of the last
    // change (seconds, nanoseconds) the twelfth and thirteenth.
    std::uint64_t status[18] = {};
    static_assert(sizeof status == 144);
    if (systemCall(SystemCall::statusOfPath, path.c_str(), status) != 0)
        return {};
    return {status[1], status[6], status[11] * nsPerSecond + status[12]};
}

} // namespace ruvo::winehost
