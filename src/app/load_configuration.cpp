// The load configuration of an executable: Windows' loader reads it before any of our code runs. It makes the loader
// look for the DLLs that the executable imports in System32 only. Otherwise it looks in the executable's own folder
// first, and whoever can put a version.dll there has it loaded with the service's rights.
//
// Part of each executable itself, not of a library: cmake/point_to_load_configuration.py looks it up by its name
// after linking and enters it in the header of the file, as this linker does not.

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace {

/// IMAGE_LOAD_CONFIG_DIRECTORY64 (winnt.h), in the length that it has had since Windows 10. The declaration of this
/// compiler's headers is shorter and calls dependentLoadFlags reserved.
struct LoadConfiguration
{
    std::uint32_t size = sizeof(LoadConfiguration);
    std::uint32_t timeStamp = 0;
    std::uint16_t majorVersion = 0;
    std::uint16_t minorVersion = 0;
    std::uint32_t globalFlagsClear = 0;
    std::uint32_t globalFlagsSet = 0;
    std::uint32_t criticalSectionTimeout = 0;
    std::uint64_t deCommitFreeBlockThreshold = 0;
    std::uint64_t deCommitTotalFreeThreshold = 0;
    std::uint64_t lockPrefixTable = 0;
    std::uint64_t maximumAllocationSize = 0;
    std::uint64_t virtualMemoryThreshold = 0;
    std::uint64_t processAffinityMask = 0;
    std::uint32_t processHeapFlags = 0;
    std::uint16_t csdVersion = 0;
    std::uint16_t dependentLoadFlags = LOAD_LIBRARY_SEARCH_SYSTEM32;
    std::uint64_t editList = 0;
    /// A pointer, so that the file's relocations know it.
    std::uintptr_t *securityCookie = nullptr;
    /// Tables of exception handlers and control flow guards: this compiler makes none.
    std::byte rest[0x100 - 0x60]{};
};

static_assert(sizeof(LoadConfiguration) == 0x100);
static_assert(offsetof(LoadConfiguration, dependentLoadFlags) == 0x4E);
static_assert(offsetof(LoadConfiguration, securityCookie) == 0x58);

} // namespace

extern "C" {

/// The value that the loader replaces by a random one. GCC's stack protector has a cookie of its own.
constinit std::uintptr_t ruvoLoadCookie = 0x00002B992DDFA232;

extern const LoadConfiguration ruvoLoadConfiguration;
constinit const LoadConfiguration ruvoLoadConfiguration{.securityCookie = &ruvoLoadCookie};
}
