#pragma once

#include "daemon/log_gate.h"

#include <QByteArray>
#include <QString>

#include <atomic>

namespace ruvo {

/// The log file at one path, opened anew for each line, with its old generation.
///
/// From any thread, without a lock. A thread is held up for as long as its own append blocks; while that is longer
/// than LogGate has patience for, lines of others are left out, and how many is written before the next one that gets
/// through. What is no disk file is opened once and never again.
class LogFile
{
public:
    /// An empty path stands for the default one, which is found anew each time.
    explicit LogFile(const QString &path, SteadyClock clock = steadyNow);

    /// The path as it was given, or the default one, whose folders are made; empty if there is none.
    QString path() const;
    /// Whether lines go to `path` unless something is wrong there.
    bool isFor(const QString &path) const { return m_path == path && !m_refused; }

    /// Counts among its own the lines that another file was not given and has not told of.
    void takeOverLeftOut(LogFile &other) { m_leftOut += other.m_leftOut.exchange(0); }

    /// Makes the folders that a given path needs.
    void makeFolders();
    /// Appends a whole line; if `looksAtSize`, a file that has grown too large becomes the old generation then.
    void take(const QByteArray &line, bool looksAtSize);
    /// Removes the file and its old generation, and logs that; false if one is there and stays, or cannot be asked
    /// for as the file blocks.
    bool clear();

private:
    void append(const QString &path, const QByteArray &line);

    const QString m_path;
    LogGate m_gate;
    /// It is no disk file: not to be opened again.
    std::atomic<bool> m_refused;
    std::atomic<quint64> m_leftOut = 0;
    std::atomic<bool> m_rotating = false;
};

/// Removes the log at `path` and its old generation. False for an empty path, or if one is there and stays; a missing
/// one is fine.
bool clearLogFiles(const QString &path);

} // namespace ruvo
