#include "daemon/log_output.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace ruvo {

namespace {

/// Never closed: messages may come until the process ends.
int s_standardError = -1;

bool writeWhole(int descriptor, const QByteArray &text)
{
    return write(descriptor, text.constData(), static_cast<size_t>(text.size())) == text.size();
}

} // namespace

void keepStandardError()
{
    if (s_standardError < 0)
        s_standardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
}

void writeToStandardError(const QByteArray &text)
{
    if (s_standardError >= 0)
        writeWhole(s_standardError, text);
}

Appended appendTextToFile(const QString &path, const QByteArray &text)
{
    // A pipe that nobody reads would otherwise hold the thread up.
    const int file = open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (file < 0)
        return errno == ENXIO ? Appended::NotAFile : Appended::No;
    struct stat information = {};
    Appended result = Appended::NotAFile;
    if (fstat(file, &information) == 0 && S_ISREG(information.st_mode))
        result = writeWhole(file, text) ? Appended::Yes : Appended::No;
    close(file);
    return result;
}

bool removeFile(const QString &path)
{
    return unlink(QFile::encodeName(path).constData()) == 0;
}

bool renameFile(const QString &path, const QString &newPath)
{
    return rename(QFile::encodeName(path).constData(), QFile::encodeName(newPath).constData()) == 0;
}

} // namespace ruvo
