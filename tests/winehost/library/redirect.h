#pragma once

#include <span>
#include <string_view>
#include <vector>

namespace ruvo::winehost {

/// One import of the program that gets another target.
struct Redirection
{
    const char *dll;
    const char *function;
    const void *substitute;
};

/// Points the imports of the program's executable itself (not of its DLLs) to the substitutes. The substitutes
/// reach the true functions simply by calling them: this DLL's own imports stay. Returns the names of the
/// functions that the program does import.
///
/// Runs while the program loads, before its first instruction.
std::vector<std::string_view> redirectImports(std::span<const Redirection> table);

} // namespace ruvo::winehost
