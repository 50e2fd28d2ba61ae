#include "daemon/log_output.h"

#include "common/windows_handles.h"
#include "daemon/log_path.h"

#include <QDir>

#include <string>

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

/// Windows takes absolute paths of MAX_PATH characters and more only with a prefix, behind which it resolves neither
/// dots nor slashes.
std::wstring systemPath(const QString &path)
{
    const QString native = QDir::toNativeSeparators(path);
    if (native.size() < MAX_PATH)
        return native.toStdWString();
    const QString clean = QDir::toNativeSeparators(QDir::cleanPath(path));
    if (clean.startsWith(QStringLiteral(R"(\\)")) && !namesADevice(clean))
        return LR"(\\?\UNC)" + clean.mid(1).toStdWString();
    if (clean.mid(1).startsWith(QStringLiteral(R"(:\)")))
        return LR"(\\?\)" + clean.toStdWString();
    return native.toStdWString();
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

Appended appendTextToFile(const QString &path, const QByteArray &text)
{
    // Anonymous: the server of a pipe may otherwise act in the name of whoever opens it, and that is the system.
    constexpr DWORD flags = FILE_ATTRIBUTE_NORMAL | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS;
    const FileHandle file(CreateFileW(systemPath(path).c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                      flags, nullptr));
    if (!file)
        return Appended::No;
    if (GetFileType(file.get()) != FILE_TYPE_DISK)
        return Appended::NotAFile;
    QByteArray native = text;
    native.replace('\n', "\r\n");
    return writeWhole(file.get(), native) ? Appended::Yes : Appended::No;
}

bool removeFile(const QString &path)
{
    return DeleteFileW(systemPath(path).c_str());
}

bool renameFile(const QString &path, const QString &newPath)
{
    return MoveFileExW(systemPath(path).c_str(), systemPath(newPath).c_str(), 0);
}

} // namespace ruvo
