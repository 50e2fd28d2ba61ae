#pragma once

// Writing without buffers: what a call wrote is in the pipe when the call returns, whatever happens next.

#include "common/winsock_headers.h"

#include "library/json_line.h"

#include <optional>
#include <string>
#include <string_view>

namespace ruvo::winehost {

enum class Stream { Input, Output, Error };

HANDLE handleOf(Stream stream);
void closeStream(Stream stream);
std::string_view nameOf(Stream stream);
std::optional<Stream> streamNamed(std::string_view name);

/// Writes everything or returns the error of the write that failed. Blocks while the pipe is full.
DWORD writeAll(HANDLE handle, std::string_view bytes);

/// Appends to a file; what several processes append at once neither mixes nor gets lost. Returns the error or 0.
DWORD appendToFile(const std::wstring &path, std::string_view bytes);

/// Facts go to this file from now on, instead of standard output.
void setReport(const std::wstring &path);
bool hasReport();

/// What the child tells of itself: a line {"fact": NAME, …}. `JsonLine line = fact("pid"); tell(line.add(…))`.
JsonLine fact(std::string_view name);
void tell(const JsonLine &fact);

} // namespace ruvo::winehost
