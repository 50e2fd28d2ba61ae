#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

namespace ruvo {

// The daemon's log: Qt's message handler, standard error and one text file with one old generation.
// All of it may be called from any thread. No thread waits until another's line is written: one that blocks (a share
// that went away) holds its own thread up, and soon the others leave the file out.

/// Above this the file becomes the old generation, in bytes.
inline constexpr qint64 logRotationThreshold = 0x100000;
/// The size is looked at after every so many messages, so the file may be larger by that many lines.
inline constexpr int logRotationCheckInterval = 100;

/// Makes the log the handler of all of Qt's messages. Standard error is duplicated here, once: sending Ctrl+C
/// to a child's console invalidates the handle that a later look-up would give.
void installDaemonLog();

/// "[<local time>] <level>: <message>\n" in UTF-8.
QByteArray formatLogLine(QtMsgType type, const QString &message, const QDateTime &time);

/// Where lines go: the path that was set, or the default one, whose folders are made. Empty if there is none.
QString logFilePath();

/// The default path below a data folder, whose folders are made; empty for an empty folder.
QString defaultLogFilePath(const QString &dataLocation);

/// From now on lines go to `path`; the default path if it is empty. Not checked: the handler ignores a file
/// that it cannot write. What is no disk file, but a pipe or another device, counts as such a file, and is opened
/// once at most until a path is set again.
void setLogFilePath(const QString &path);

/// Makes the folders that `path` needs and sets it. What a client's hello does.
void useLogFile(const QString &path);

/// Removes the log file and its old generation. False if one is there and stays. A missing one is fine.
bool clearLogs();

} // namespace ruvo
