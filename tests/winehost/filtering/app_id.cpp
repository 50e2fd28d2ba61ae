#include "filtering/app_id.h"

#include "common/windows_handles.h"

namespace ruvo::winehost {

namespace {

constexpr DWORD pathSize = 1024;

std::wstring inSmallLetters(const std::wstring &text)
{
    std::wstring small(text.size(), L'\0');
    LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, text.data(), static_cast<int>(text.size()), small.data(),
                  static_cast<int>(small.size()), nullptr, nullptr, 0);
    return small;
}

} // namespace

std::expected<std::wstring, DWORD> appIdOf(const wchar_t *path)
{
    wchar_t full[pathSize] = {};
    const DWORD length = GetFullPathNameW(path, pathSize, full, nullptr);
    if (length == 0 || length >= pathSize)
        return std::unexpected<DWORD>(ERROR_INVALID_NAME);
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const FileHandle file(CreateFileW(full, 0, shareAll, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return std::unexpected(GetLastError());
    const std::wstring small = inSmallLetters({full, length});
    if (small.size() < 3 || small[0] < L'a' || small[0] > L'z' || small[1] != L':')
        return std::unexpected<DWORD>(ERROR_NOT_SUPPORTED); // of no drive: \\server\share
    return L"\\device\\harddiskvolume" + std::to_wstring(small[0] - L'a' + 1) + small.substr(2);
}

std::wstring ownAppId()
{
    wchar_t path[pathSize] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, pathSize);
    return length == 0 || length >= pathSize ? std::wstring() : appIdOf(path).value_or(std::wstring());
}

} // namespace ruvo::winehost
