#include "ruvoctl/open_pipe.h"

#include <QDeadlineTimer>

#include <algorithm>

namespace ruvo {

QString pipeName(quint32 sessionId)
{
    return QStringLiteral(R"(\\.\pipe\ruvod-%1)").arg(sessionId);
}

std::expected<FileHandle, DWORD> openPipe(const QString &name, std::chrono::milliseconds timeout)
{
    const std::wstring path = name.toStdWString();
    const QDeadlineTimer deadline(timeout);
    while (true) {
        // Whoever serves the pipe learns who its client is, but cannot act as that user.
        FileHandle pipe(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe)
            return pipe;
        const DWORD error = GetLastError();
        if (error != ERROR_PIPE_BUSY || deadline.hasExpired())
            return std::unexpected(error);
        // Another client may be quicker when an instance becomes free: then once more. Never 0, which would
        // mean the server's default.
        WaitNamedPipeW(path.c_str(), static_cast<DWORD>(std::max<qint64>(1, deadline.remainingTime())));
    }
}

std::unique_ptr<QLocalSocket> socketFor(FileHandle pipe)
{
    auto socket = std::make_unique<QLocalSocket>();
    socket->setSocketDescriptor(reinterpret_cast<qintptr>(pipe.release()));
    return socket;
}

} // namespace ruvo
