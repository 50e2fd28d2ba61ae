#pragma once

#include <string_view>
#include <vector>

namespace ruvo::test {

/// Makes this executable's import address table lead to another function for as long as it lives.
///
/// All of the program's calls go through that table, those of the libraries that are linked into it included;
/// what a DLL calls itself and what is looked up at run time does not.
class PatchedImport
{
public:
    /// `name` as it stands in the table, whatever DLL it comes from. Throws std::runtime_error if the executable
    /// does not import it, or if the table cannot be written.
    PatchedImport(std::string_view name, void *function);
    ~PatchedImport();
    PatchedImport(const PatchedImport &) = delete;
    PatchedImport &operator=(const PatchedImport &) = delete;

    /// What the table leads to now. Throws as the constructor does.
    static void *current(std::string_view name);

private:
    struct Slot
    {
        void **place;
        void *before;
    };
    static std::vector<Slot> find(std::string_view name);

    /// More than one where import libraries name the same function under two DLLs.
    const std::vector<Slot> m_slots;
};

} // namespace ruvo::test
