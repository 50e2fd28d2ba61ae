#include "daemon/log_output.h"

#include <QFile>

#include <fcntl.h>
#include <unistd.h>

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

bool appendTextToFile(const QString &path, const QByteArray &text)
{
    const int file = open(QFile::encodeName(path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0)
        return false;
    const bool written = writeWhole(file, text);
    close(file);
    return written;
}

} // namespace ruvo
