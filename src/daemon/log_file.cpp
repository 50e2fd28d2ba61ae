#include "daemon/log_file.h"

#include "common/log_category.h"
#include "daemon/daemon_log.h"
#include "daemon/log_output.h"
#include "daemon/log_path.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <utility>

namespace ruvo {

namespace {

QString oldGeneration(const QString &path)
{
    return path + QStringLiteral(".old");
}

void rotateIfLarge(const QString &path)
{
    const QFileInfo file(path);
    if (!file.exists() || file.size() <= logRotationThreshold)
        return;
    const QString old = oldGeneration(path);
    removeFile(old);
    renameFile(path, old);
}

} // namespace

LogFile::LogFile(const QString &path, SteadyClock clock)
    : m_path(path), m_gate(std::move(clock)), m_refused(namesADevice(path))
{}

QString LogFile::path() const
{
    if (!m_path.isEmpty())
        return m_path;
    return defaultLogFilePath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
}

void LogFile::makeFolders()
{
    if (m_refused)
        return;
    if (const auto pass = m_gate.enter())
        QDir().mkpath(QFileInfo(m_path).absolutePath());
}

// Must not log: the log would call itself.
void LogFile::take(const QByteArray &line, bool looksAtSize)
{
    if (m_refused)
        return;
    const auto pass = m_gate.enter();
    if (!pass) {
        ++m_leftOut;
        return;
    }
    const QString target = path();
    if (target.isEmpty())
        return;
    append(target, line);
    // Never waits: a thread that is held up between its look at the size and its rename would otherwise throw away
    // the old generation that another one made meanwhile.
    if (looksAtSize && !m_refused && !m_rotating.exchange(true)) {
        rotateIfLarge(target);
        m_rotating = false;
    }
}

void LogFile::append(const QString &path, const QByteArray &line)
{
    const quint64 leftOut = m_leftOut.exchange(0);
    QByteArray notice;
    if (leftOut > 0) {
        const auto text = QStringLiteral("Lines left out of the log file while it could not be written: %1");
        notice = formatLogLine(QtWarningMsg, text.arg(leftOut), QDateTime::currentDateTime());
    }
    switch (appendTextToFile(path, notice + line)) {
    case Appended::Yes:
        if (leftOut > 0)
            writeToStandardError(notice);
        break;
    case Appended::No: m_leftOut += leftOut; break;
    case Appended::NotAFile: m_refused = true; break;
    }
}

bool LogFile::clear()
{
    if (m_refused) {
        qCDebug(lcRuvod) << "Daemon log files cleared successfully"; // there are none
        return true;
    }
    if (const auto pass = m_gate.enter())
        return clearLogFiles(path());
    qCWarning(lcRuvod) << "Failed to clear some daemon log files";
    return false;
}

bool clearLogFiles(const QString &path)
{
    if (path.isEmpty()) {
        qCWarning(lcRuvod) << "Log path is empty, cannot clear";
        return false;
    }

    bool cleared = true;
    qCDebug(lcRuvod) << "Checking if main log exists:" << path;
    if (QFile::exists(path)) {
        qCDebug(lcRuvod) << "Main log file exists, attempting to remove...";
        if (QFile::remove(path)) {
            qCDebug(lcRuvod) << "Successfully removed main log file";
        } else {
            qCWarning(lcRuvod) << "FAILED to remove main log file";
            cleared = false;
        }
    }

    const QString old = oldGeneration(path);
    qCDebug(lcRuvod) << "Checking if .old log exists:" << old;
    if (QFile::exists(old)) {
        qCDebug(lcRuvod) << ".old log file exists, attempting to remove...";
        if (QFile::remove(old)) {
            qCDebug(lcRuvod) << "Successfully removed .old log file";
        } else {
            qCWarning(lcRuvod) << "FAILED to remove .old log file";
            cleared = false;
        }
    }

    if (cleared)
        qCDebug(lcRuvod) << "Daemon log files cleared successfully";
    else
        qCWarning(lcRuvod) << "Failed to clear some daemon log files";
    return cleared;
}

} // namespace ruvo
