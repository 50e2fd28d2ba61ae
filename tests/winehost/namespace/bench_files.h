#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace ruvo::test {

/// Where the test program lies; the substitutes lie beside it (in-namespace puts them there).
std::filesystem::path programFolder();

/// The folder through which a test and the substitutes speak.
std::filesystem::path benchFolder();

/// Forgets journal and configuration of what ran before.
void clearBenchFolder();

/// The whole text of one of the files that configure the substitutes ("faults.txt").
void writeBenchFile(const std::string &name, const std::string &text);

/// The lines of the journal that contain `text`, in order.
std::vector<std::string> journal(const std::string &text);

} // namespace ruvo::test
