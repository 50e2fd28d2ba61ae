#include "redirect.h"

#include <windows.h>

#include <cstring>

namespace ruvo::winehost {

namespace {

/// The import tables of a loaded executable, in the terms of the PE format.
class ImportTables
{
public:
    explicit ImportTables(HMODULE module) : m_base(reinterpret_cast<char *>(module)) {}

    const IMAGE_IMPORT_DESCRIPTOR *libraries() const
    {
        const auto *dos = at<IMAGE_DOS_HEADER>(0);
        const auto *nt = at<IMAGE_NT_HEADERS64>(static_cast<DWORD>(dos->e_lfanew));
        const DWORD offset = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
        return offset == 0 ? nullptr : at<IMAGE_IMPORT_DESCRIPTOR>(offset);
    }

    const char *nameOf(const IMAGE_IMPORT_DESCRIPTOR &library) const { return at<char>(library.Name); }

    /// Where the program keeps the address of `function`, or null if it does not import that.
    void **slotOf(const IMAGE_IMPORT_DESCRIPTOR &library, const char *function) const
    {
        const auto *names = at<IMAGE_THUNK_DATA64>(library.OriginalFirstThunk);
        auto *slots = at<IMAGE_THUNK_DATA64>(library.FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL64(names->u1.Ordinal))
                continue;
            const auto *import = at<IMAGE_IMPORT_BY_NAME>(static_cast<DWORD>(names->u1.AddressOfData));
            if (std::strcmp(import->Name, function) == 0)
                return reinterpret_cast<void **>(&slots->u1.Function);
        }
        return nullptr;
    }

private:
    template<typename T>
    T *at(DWORD offset) const
    {
        return reinterpret_cast<T *>(m_base + offset);
    }

    char *m_base;
};

void **findSlot(const ImportTables &tables, const Redirection &row)
{
    const IMAGE_IMPORT_DESCRIPTOR *library = tables.libraries();
    for (; library && library->Name != 0; ++library) {
        if (_stricmp(tables.nameOf(*library), row.dll) != 0)
            continue;
        if (void **slot = tables.slotOf(*library, row.function))
            return slot;
    }
    return nullptr;
}

void writeSlot(void **slot, const void *target)
{
    DWORD protection = 0;
    VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    *slot = const_cast<void *>(target);
    VirtualProtect(slot, sizeof *slot, protection, &protection);
}

} // namespace

std::vector<std::string_view> redirectImports(std::span<const Redirection> table)
{
    const ImportTables tables(GetModuleHandleW(nullptr));
    std::vector<std::string_view> found;
    for (const Redirection &row : table) {
        if (void **slot = findSlot(tables, row)) {
            writeSlot(slot, row.substitute);
            found.push_back(row.function);
        }
    }
    return found;
}

} // namespace ruvo::winehost
