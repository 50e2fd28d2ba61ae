#pragma once

#include <windows.h>

#include <chrono>
#include <optional>
#include <string>

namespace ruvo::test {

/// A shell command of Linux, run beside this Windows program in the same namespaces.
class LinuxCommand
{
public:
    explicit LinuxCommand(const std::string &command);
    ~LinuxCommand();
    LinuxCommand(const LinuxCommand &) = delete;
    LinuxCommand &operator=(const LinuxCommand &) = delete;

    struct Result
    {
        int status = -1;
        std::string output; ///< both streams
    };
    /// Nothing if it does not end within `timeout`.
    std::optional<Result> wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));

private:
    std::string outputSoFar() const;

    // A file, as Wine hands no pipe to a Linux program.
    std::wstring m_path;
    HANDLE m_file;
};

/// What a command printed; "failed" and its output if it did not end with status 0.
std::string linuxOutput(const std::string &command);

} // namespace ruvo::test
