#include "ruvoctl/message_stream.h"

#include "ruvoctl/pipe_client.h"
#include "ruvoctl/request.h"

#include <utility>

namespace ruvo {

MessageStream::MessageStream(PipeClient &client, std::chrono::milliseconds linger, std::chrono::milliseconds timeout,
                             QObject *parent)
    : QObject(parent), m_client(client), m_linger(linger), m_timeout(timeout)
{
    connect(&client, &PipeClient::messageReceived, this,
            [this](const QJsonObject &message) { emit output(toCompactJson(message)); });
    connect(&client, &PipeClient::malformedMessage, this,
            [this](const QString &reason) { emit problem("the service sent a message that is no JSON: " + reason); });
    connect(&client, &PipeClient::bytesWritten, this, &MessageStream::onBytesWritten);
    connect(&client, &PipeClient::disconnected, this, [this] { fail("the service closed the connection"); });

    m_lingerTimer.setSingleShot(true);
    connect(&m_lingerTimer, &QTimer::timeout, this, [this] { finish(m_exitStatus); });
    m_sendTimer.setSingleShot(true);
    connect(&m_sendTimer, &QTimer::timeout, this, [this] { fail("the service does not take what is sent to it"); });
}

void MessageStream::takeInput(const QByteArray &bytes)
{
    m_lines.append(bytes);
    while (const std::optional<QByteArray> line = m_lines.next())
        sendLine(*line);
    m_inputDue = true;
    askForInput();
}

void MessageStream::endInput()
{
    if (const std::optional<QByteArray> line = m_lines.rest())
        sendLine(*line);
    m_inputEnded = true;
    m_sendTimer.start(m_timeout);
    lingerWhenSent();
}

void MessageStream::sendLine(const QByteArray &line)
{
    if (line.trimmed().isEmpty())
        return;
    const std::expected<QByteArray, QString> request = requestFromLine(line);
    if (request) {
        m_client.send(*request);
    } else {
        emit problem(QStringLiteral("line %1 is no JSON object: %2").arg(m_lines.lineNumber()).arg(request.error()));
        m_exitStatus = ExitError;
    }
}

void MessageStream::onBytesWritten()
{
    askForInput();
    lingerWhenSent();
}

void MessageStream::askForInput()
{
    if (m_client.unsentBytes() <= maxUnsentBytes && std::exchange(m_inputDue, false))
        emit inputWanted();
}

void MessageStream::lingerWhenSent()
{
    if (!m_inputEnded || m_finished || m_lingerTimer.isActive() || m_client.unsentBytes() > 0)
        return;
    m_sendTimer.stop();
    m_lingerTimer.start(m_linger);
}

void MessageStream::fail(const QString &text)
{
    if (m_finished)
        return;
    emit problem(text);
    finish(ExitNoConnection);
}

void MessageStream::finish(int exitStatus)
{
    m_finished = true;
    m_sendTimer.stop();
    m_lingerTimer.stop();
    emit finished(exitStatus);
}

} // namespace ruvo
