#include "ruvoctl/standard_streams.h"

#include <QString>

#include <algorithm>

namespace ruvo {

namespace {

// Consoles refuse a single write of more than 64 KiB.
constexpr qsizetype consolePiece = 8 * 1024;
constexpr qsizetype filePiece = 1024 * 1024;

bool isConsole(HANDLE handle)
{
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode);
}

bool writeToConsole(HANDLE console, const QString &text)
{
    for (qsizetype done = 0; done < text.size();) {
        const auto size = static_cast<DWORD>(std::min(consolePiece, text.size() - done));
        DWORD written = 0;
        if (!WriteConsoleW(console, text.utf16() + done, size, &written, nullptr) || written == 0)
            return false;
        done += written;
    }
    return true;
}

bool writeToFile(HANDLE file, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const auto size = static_cast<DWORD>(std::min(filePiece, bytes.size()));
        DWORD written = 0;
        if (!WriteFile(file, bytes.data(), size, &written, nullptr) || written == 0)
            return false;
        bytes = bytes.sliced(written);
    }
    return true;
}

} // namespace

bool writeUtf8(DWORD standardHandle, QByteArrayView text)
{
    const HANDLE handle = GetStdHandle(standardHandle);
    if (!handle || handle == INVALID_HANDLE_VALUE)
        return false;
    return isConsole(handle) ? writeToConsole(handle, QString::fromUtf8(text)) : writeToFile(handle, text);
}

} // namespace ruvo
