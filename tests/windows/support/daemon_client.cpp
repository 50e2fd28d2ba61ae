#include "windows/support/daemon_client.h"

#include "support/wait_until.h"

#include <QJsonDocument>

#include <algorithm>

#include <windows.h>

namespace ruvo::test {

namespace {

QString pipeName(quint32 sessionId)
{
    return QStringLiteral(R"(\\.\pipe\ruvod-%1)").arg(sessionId);
}

} // namespace

DaemonClient::DaemonClient(quint32 sessionId) : m_pipe(std::make_unique<PipeClient>(pipeName(sessionId)))
{
    waitUntil([this, sessionId] {
        if (m_pipe->isGone())
            m_pipe = std::make_unique<PipeClient>(pipeName(sessionId));
        return m_pipe->isConnected();
    });
}

void DaemonClient::send(const QJsonObject &message)
{
    m_pipe->send(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

QJsonObject DaemonClient::request(const QString &action, QJsonObject fields)
{
    const int id = ++m_lastRequest;
    fields["action"] = action;
    fields["request-id"] = id;
    send(fields);
    return waitForMessage([id](const QJsonObject &message) { return message["request-id"] == id; });
}

QJsonObject DaemonClient::waitForEvent(const QString &event)
{
    return waitForMessage([&event](const QJsonObject &message) { return message["event"] == event; });
}

QJsonObject DaemonClient::waitForMessage(const std::function<bool(const QJsonObject &)> &matches)
{
    QJsonObject found;
    waitUntil([&] {
        const QList<QJsonObject> messages = m_pipe->messages();
        const auto message = std::ranges::find_if(messages, matches);
        if (message != messages.cend())
            found = *message;
        return !found.isEmpty();
    });
    return found;
}

bool daemonPipeListens(quint32 sessionId)
{
    return WaitNamedPipeW(pipeName(sessionId).toStdWString().c_str(), 1);
}

bool daemonPipeExists(quint32 sessionId)
{
    return daemonPipeListens(sessionId) || GetLastError() != ERROR_FILE_NOT_FOUND;
}

} // namespace ruvo::test
