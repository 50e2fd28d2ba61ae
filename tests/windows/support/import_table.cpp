#include "windows/support/import_table.h"

#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace ruvo::test {

namespace {

/// The running executable as it lies in memory; the addresses inside it are relative to its start.
class Image
{
public:
    Image() : m_base(reinterpret_cast<std::uintptr_t>(GetModuleHandleW(nullptr))) {}

    template<typename T>
    T *at(std::uint64_t relativeAddress) const
    {
        return reinterpret_cast<T *>(m_base + relativeAddress);
    }

    const IMAGE_IMPORT_DESCRIPTOR *imports() const
    {
        const auto headerOffset = static_cast<DWORD>(at<IMAGE_DOS_HEADER>(0)->e_lfanew);
        const auto *header = at<IMAGE_NT_HEADERS>(headerOffset);
        return at<IMAGE_IMPORT_DESCRIPTOR>(
            header->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    }

private:
    const std::uintptr_t m_base;
};

void writeSlot(void **slot, void *function)
{
    DWORD protection = 0;
    if (!VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection))
        throw std::runtime_error("the import table cannot be made writable: error " + std::to_string(GetLastError()));
    // In one instruction: other threads call through this slot. The page stays writable, as another thread may
    // be about to write the slot beside it.
    InterlockedExchangePointer(slot, function);
}

} // namespace

std::vector<PatchedImport::Slot> PatchedImport::find(std::string_view name)
{
    const Image image;
    std::vector<Slot> found;
    for (const IMAGE_IMPORT_DESCRIPTOR *library = image.imports(); library->Name != 0; ++library) {
        const auto *entry = image.at<IMAGE_THUNK_DATA>(library->OriginalFirstThunk);
        auto *place = image.at<void *>(library->FirstThunk);
        for (; entry->u1.AddressOfData != 0; ++entry, ++place) {
            if (IMAGE_SNAP_BY_ORDINAL(entry->u1.Ordinal))
                continue;
            const auto *import = image.at<IMAGE_IMPORT_BY_NAME>(entry->u1.AddressOfData);
            if (name == reinterpret_cast<const char *>(import->Name))
                found.push_back({place, *place});
        }
    }
    if (found.empty())
        throw std::runtime_error("this executable does not import " + std::string(name));
    return found;
}

void *PatchedImport::current(std::string_view name)
{
    return find(name).front().before;
}

PatchedImport::PatchedImport(std::string_view name, void *function) : m_slots(find(name))
{
    for (const Slot &slot : m_slots)
        writeSlot(slot.place, function);
}

PatchedImport::~PatchedImport()
{
    for (const Slot &slot : m_slots)
        writeSlot(slot.place, slot.before);
}

} // namespace ruvo::test
