#include "ruvoctl/one_request.h"

#include "ruvoctl/exit_status.h"
#include "ruvoctl/pipe_client.h"
#include "ruvoctl/request.h"

namespace ruvo {

OneRequest::OneRequest(PipeClient &client, const QJsonObject &request, std::chrono::milliseconds timeout,
                       QObject *parent)
    : QObject(parent), m_client(client), m_request(request), m_timeout(timeout)
{
    connect(&client, &PipeClient::messageReceived, this, &OneRequest::onMessage);
    connect(&client, &PipeClient::malformedMessage, this,
            [this](const QString &reason) { emit problem("the service sent a message that is no JSON: " + reason); });
    connect(&client, &PipeClient::disconnected, this,
            [this] { fail("the service closed the connection before it answered"); });
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] { fail("no answer in time"); });
}

void OneRequest::start()
{
    m_timer.start(m_timeout);
    m_client.send(toCompactJson(m_request));
}

void OneRequest::onMessage(const QJsonObject &message)
{
    if (m_finished || !isAnswerTo(m_request["request-id"], message))
        return;
    emit output(toCompactJson(message));
    finish(exitStatusOf(message));
}

void OneRequest::fail(const QString &text)
{
    if (m_finished)
        return;
    emit problem(text);
    finish(ExitNoConnection);
}

void OneRequest::finish(int exitStatus)
{
    m_finished = true;
    m_timer.stop();
    emit finished(exitStatus);
}

} // namespace ruvo
