#pragma once

#include <windows.h>

#include <expected>
#include <string>

namespace ruvo::winehost {

/// What the filtering engine calls a program: the path of its file on its volume, in small letters. Volumes are
/// numbered as the letters of their drives: `Z:\a\B.exe` is `\device\harddiskvolume26\a\b.exe`.
///
/// The file has to exist: else ERROR_FILE_NOT_FOUND, or ERROR_PATH_NOT_FOUND for one in a folder that does not.
std::expected<std::wstring, DWORD> appIdOf(const wchar_t *path);

/// Of this program itself; empty on failure.
std::wstring ownAppId();

} // namespace ruvo::winehost
