#include "support/log_capture.h"

#include <QLoggingCategory>

namespace ruvo::test {

namespace {

LogCapture *s_current = nullptr;

QString levelWord(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return QStringLiteral("DEBUG");
    case QtInfoMsg: return QStringLiteral("INFO");
    case QtWarningMsg: return QStringLiteral("WARNING");
    case QtCriticalMsg: return QStringLiteral("CRITICAL");
    case QtFatalMsg: return QStringLiteral("FATAL");
    }
    return QString();
}

} // namespace

LogCapture::LogCapture()
{
    s_current = this;
    QLoggingCategory::setFilterRules("ruvod.debug=true");
    m_previous = qInstallMessageHandler(handle);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    QLoggingCategory::setFilterRules(QString());
    s_current = nullptr;
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    const QMutexLocker lock(&s_current->m_mutex);
    s_current->m_lines.append(levelWord(type) + u' ' + message);
}

QStringList LogCapture::lines() const
{
    const QMutexLocker lock(&m_mutex);
    return m_lines;
}

QStringList LogCapture::linesWith(const QString &text) const
{
    return lines().filter(text);
}

void LogCapture::clear()
{
    const QMutexLocker lock(&m_mutex);
    m_lines.clear();
}

} // namespace ruvo::test
