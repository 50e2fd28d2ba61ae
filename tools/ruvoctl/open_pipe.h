#pragma once

#include "common/windows_handles.h"

#include <QLocalSocket>
#include <QString>

#include <chrono>
#include <expected>
#include <memory>

namespace ruvo {

/// The pipe of a Windows session, "\\.\pipe\ruvod-N".
QString pipeName(quint32 sessionId);

/// The client's end of a pipe, opened for overlapped reading and writing. Waits while all instances of the
/// pipe are taken, for `timeout` at most; a pipe that does not exist fails at once. The error is Windows'.
std::expected<FileHandle, DWORD> openPipe(const QString &name, std::chrono::milliseconds timeout);

/// A socket on an opened pipe. QLocalSocket's own way to connect waits as long as it sees fit.
std::unique_ptr<QLocalSocket> socketFor(FileHandle pipe);

} // namespace ruvo
