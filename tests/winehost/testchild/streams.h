#pragma once

// What runs over the standard streams for a while, each in a thread of its own.

#include "output.h"

#include <cstdint>

namespace ruvo::winehost {

/// The line of a number: "000000000042\n", or the same number in characters of two, three and four bytes.
std::string asciiLine(uint64_t number);
std::string utf8Line(uint64_t number);

struct LinePlan
{
    Stream stream = Stream::Output;
    std::string (*line)(uint64_t number) = asciiLine;
    uint64_t bytesPerSecond = 0; ///< 0: as fast as the pipe takes them
    uint64_t durationMs = 0;     ///< 0: no limit
    uint64_t lines = 0;          ///< 0: no limit
};

/// Writes the lines 0, 1, 2 … until a limit is reached or nobody can read them any more.
void writeLines(const LinePlan &plan);

/// Reads standard input up to `limit` bytes (0: to its end), writes it back if `echo`, then tells count and CRC-32.
void readInput(uint64_t limit, bool echo);

/// Reads one line and tells it.
void readLine();

} // namespace ruvo::winehost
