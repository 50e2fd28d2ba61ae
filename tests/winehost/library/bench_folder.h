#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace ruvo::winehost {

/// The folder through which a test and the substitutes speak: `winehost`, beside this DLL, or, for a DLL in a
/// subfolder of the program's, beside that. It needs no variable of the environment, which a program that the service
/// manager starts would not have.
const std::filesystem::path &benchFolder();

/// A whole file of that folder, or nothing (with the last error set). Tests replace these files by renaming a
/// new one over them, so each is read in one go and never kept open.
std::optional<std::string> readBenchFile(const wchar_t *name);

/// The path of a file of that folder as Linux has it: the bench lies on the drive that stands for Linux's own tree.
std::string linuxPathOf(const wchar_t *name);

} // namespace ruvo::winehost
