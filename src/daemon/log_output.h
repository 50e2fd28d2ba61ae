#pragma once

#include <QByteArray>
#include <QString>

namespace ruvo {

// The two places that the log writes to, in each system's own calls. From any thread; nothing here logs.

/// Duplicates the process's standard error for writeToStandardError. Once, before the first message.
void keepStandardError();

/// Writes `text` to the standard error that was kept; nothing if there was none.
void writeToStandardError(const QByteArray &text);

enum class Appended {
    Yes,
    No,
    NotAFile, ///< What was opened is a pipe or another device: nothing was written.
};

/// Opens `path` for appending (creating it), writes `text` in one call, and closes it again; line ends become
/// the system's own. Appending is the system's: lines of several threads never overwrite one another. The file
/// may be removed or renamed meanwhile.
Appended appendTextToFile(const QString &path, const QByteArray &text);

/// False if there is no such file, or it stays.
bool removeFile(const QString &path);

/// Never copies, as that would lose what is written meanwhile. False if it keeps its name.
bool renameFile(const QString &path, const QString &newPath);

} // namespace ruvo
