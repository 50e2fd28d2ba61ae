#include "daemon/daemon_log.h"

#include "common/log_category.h"
#include "daemon/log_output.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <atomic>
#include <filesystem>
#include <memory>
#include <system_error>

namespace ruvo {

namespace {

/// Null: the default path. A shared pointer, as other threads log while a client changes it.
std::atomic<std::shared_ptr<const QString>> s_logFilePath;
std::atomic<qint32> s_messageCount = 0;
std::atomic<bool> s_rotating = false;

const char *levelWord(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return "DEBUG";
    case QtInfoMsg: return "INFO";
    case QtWarningMsg: return "WARNING";
    case QtCriticalMsg: return "CRITICAL";
    case QtFatalMsg: return "FATAL";
    }
    return "";
}

QString oldGeneration(const QString &path)
{
    return path + QStringLiteral(".old");
}

// The standard library's rename: Qt's would copy, and lose what is written meanwhile, where a rename fails.
void rotateIfLarge(const QString &path)
{
    const QFileInfo file(path);
    if (!file.exists() || file.size() <= logRotationThreshold)
        return;
    const std::filesystem::path current = file.filesystemFilePath();
    const std::filesystem::path old = QFileInfo(oldGeneration(path)).filesystemFilePath();
    std::error_code ignored;
    std::filesystem::remove(old, ignored);
    std::filesystem::rename(current, old, ignored);
}

// Must not log: it would call itself.
void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const QByteArray line = formatLogLine(type, message, QDateTime::currentDateTime());
    writeToStandardError(line);
    const QString path = logFilePath();
    if (!path.isEmpty())
        appendTextToFile(path, line);
    if (++s_messageCount % logRotationCheckInterval != 0 || path.isEmpty())
        return;
    // Never waits: a thread that is held up between its look at the size and its rename would otherwise throw away
    // the old generation that another one made meanwhile.
    if (!s_rotating.exchange(true)) {
        rotateIfLarge(path);
        s_rotating = false;
    }
}

} // namespace

void installDaemonLog()
{
    keepStandardError();
    qInstallMessageHandler(handleMessage);
}

QByteArray formatLogLine(QtMsgType type, const QString &message, const QDateTime &time)
{
    return QStringLiteral("[%1] %2: %3\n")
        .arg(time.toString(u"yyyy-MM-dd hh:mm:ss.zzz"), QLatin1StringView(levelWord(type)), message)
        .toUtf8();
}

QString logFilePath()
{
    if (const std::shared_ptr<const QString> path = s_logFilePath.load())
        return *path;
    return defaultLogFilePath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
}

QString defaultLogFilePath(const QString &dataLocation)
{
    if (dataLocation.isEmpty())
        return QString();
    const QString folder = dataLocation + QStringLiteral("/Ruvo/logs");
    QDir().mkpath(folder);
    return QDir::toNativeSeparators(folder + QStringLiteral("/ruvod.log"));
}

void setLogFilePath(const QString &path)
{
    s_logFilePath.store(path.isEmpty() ? nullptr : std::make_shared<const QString>(path));
    qCDebug(lcRuvod) << "Daemon log path set to:" << path;
}

void useLogFile(const QString &path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    setLogFilePath(path);
}

bool clearLogs()
{
    return clearLogFiles(logFilePath());
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
