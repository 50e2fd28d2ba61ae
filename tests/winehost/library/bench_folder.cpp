#include "bench_folder.h"

#include "text.h"

#include "common/windows_handles.h"

#include <algorithm>
#include <system_error>

namespace ruvo::winehost {

namespace {

std::filesystem::path folderBesideThisDll()
{
    static const char anchor = 0;
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&anchor), &self);
    wchar_t path[1024] = {};
    GetModuleFileNameW(self, path, 1024);
    const std::filesystem::path beside = std::filesystem::path(path).parent_path();
    const std::filesystem::path above = beside.parent_path() / L"winehost";
    std::error_code error;
    const bool isAbove =
        !std::filesystem::exists(beside / L"winehost", error) && std::filesystem::exists(above, error);
    return isAbove ? above : beside / L"winehost";
}

// Found while the DLL is loaded: a variable inside the function would need the compiler's lock for such, which leaves
// handles behind each time that the DLL is freed.
const std::filesystem::path s_folder = folderBesideThisDll();

} // namespace

const std::filesystem::path &benchFolder()
{
    return s_folder;
}

std::optional<std::string> readBenchFile(const wchar_t *name)
{
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const FileHandle file(CreateFileW((benchFolder() / name).c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return std::nullopt;
    std::string text;
    char block[4096];
    DWORD count = 0;
    do {
        if (!ReadFile(file.get(), block, sizeof block, &count, nullptr))
            return std::nullopt;
        text.append(block, count);
    } while (count > 0);
    return text;
}

std::string linuxPathOf(const wchar_t *name)
{
    std::string path = toUtf8((benchFolder() / name).wstring());
    std::ranges::replace(path, '\\', '/');
    return path.starts_with("Z:") || path.starts_with("z:") ? path.substr(2) : path;
}

} // namespace ruvo::winehost
