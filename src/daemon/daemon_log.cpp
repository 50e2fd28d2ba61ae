#include "daemon/daemon_log.h"

#include "common/log_category.h"
#include "daemon/log_file.h"
#include "daemon/log_output.h"

#include <QDir>

#include <atomic>
#include <memory>

namespace ruvo {

namespace {

std::atomic<qint32> s_messageCount = 0;

/// Where lines go. Never destroyed, as threads that were left behind may log until the process ends, and shared, as
/// they log while a client changes it.
struct Destination
{
    const std::shared_ptr<LogFile> byDefault = std::make_shared<LogFile>(QString());
    std::atomic<std::shared_ptr<LogFile>> current = byDefault;
};

Destination &destination()
{
    static Destination &s_destination = *new Destination;
    return s_destination;
}

/// The one in use if lines go to `path` already: many clients name the same, and what is known of it stays known.
std::shared_ptr<LogFile> fileFor(const QString &path)
{
    if (path.isEmpty())
        return destination().byDefault;
    std::shared_ptr<LogFile> current = destination().current;
    return current->isFor(path) ? current : std::make_shared<LogFile>(path);
}

void use(const std::shared_ptr<LogFile> &file, const QString &path)
{
    const std::shared_ptr<LogFile> before = destination().current.exchange(file);
    if (before != file)
        file->takeOverLeftOut(*before);
    qCDebug(lcRuvod) << "Daemon log path set to:" << path;
}

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

// Must not log: it would call itself.
void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const QByteArray line = formatLogLine(type, message, QDateTime::currentDateTime());
    writeToStandardError(line);
    const bool looksAtSize = ++s_messageCount % logRotationCheckInterval == 0;
    const std::shared_ptr<LogFile> file = destination().current;
    file->take(line, looksAtSize);
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
    return destination().current.load()->path();
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
    use(fileFor(path), path);
}

void useLogFile(const QString &path)
{
    const std::shared_ptr<LogFile> file = fileFor(path);
    file->makeFolders();
    use(file, path);
}

bool clearLogs()
{
    const std::shared_ptr<LogFile> file = destination().current;
    return file->clear();
}

} // namespace ruvo
