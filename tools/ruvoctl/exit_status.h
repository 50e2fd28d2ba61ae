#pragma once

namespace ruvo {

/// What ruvoctl's exit status tells scripts; `--help` lists the same.
enum ExitStatus {
    ExitSuccess = 0,
    /// The daemon answered "status": "error" or "success": false, or a line of the input was no JSON object, or
    /// standard output cannot be written. In a stream the answers do not count.
    ExitError = 1,
    /// No connection, a connection lost, or no answer in time.
    ExitNoConnection = 2,
    ExitUsage = 3,
};

} // namespace ruvo
