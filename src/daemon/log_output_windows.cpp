#include "daemon/log_output.h"

#include "common/windows_handles.h"

#include <QDir>

namespace ruvo {

namespace {

/// Never closed: messages may come until the process ends.
HANDLE s_standardError = nullptr;

bool writeWhole(HANDLE file, const QByteArray &text)
{
    DWORD written = 0;
    return WriteFile(file, text.constData(), static_cast<DWORD>(text.size()), &written, nullptr)
           && written == static_cast<DWORD>(text.size());
}

} // namespace

void keepStandardError()
{
    if (s_standardError)
        return;
    const HANDLE current = GetStdHandle(STD_ERROR_HANDLE);
    if (!current || current == INVALID_HANDLE_VALUE)
        return;
    HANDLE duplicate = nullptr;
    if (DuplicateHandle(GetCurrentProcess(), current, GetCurrentProcess(), &duplicate, 0, FALSE,
                        DUPLICATE_SAME_ACCESS)) {
        s_standardError = duplicate;
    }
}

void writeToStandardError(const QByteArray &text)
{
    if (s_standardError)
        writeWhole(s_standardError, text);
}

bool appendTextToFile(const QString &path, const QByteArray &text)
{
    const std::wstring name = QDir::toNativeSeparators(path).toStdWString();
    const FileHandle file(CreateFileW(name.c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    QByteArray native = text;
    native.replace('\n', "\r\n");
    return writeWhole(file.get(), native);
}

} // namespace ruvo
