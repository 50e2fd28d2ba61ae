#include "ruvoctl/pipe_client.h"

#include "ruvoctl/request.h"

#include <QJsonDocument>
#include <QRandomGenerator>

namespace ruvo {

namespace {

// Random, so that no request of the user carries the same by chance and loses its answer.
QString newHeartbeatId()
{
    return "ruvoctl-heartbeat-" + QString::number(QRandomGenerator::system()->generate64(), 16);
}

} // namespace

PipeClient::PipeClient(std::unique_ptr<QLocalSocket> socket, QObject *parent)
    : QObject(parent), m_socket(std::move(socket)), m_heartbeatId(newHeartbeatId())
{
    connect(m_socket.get(), &QLocalSocket::readyRead, this, &PipeClient::readMessages);
    connect(m_socket.get(), &QLocalSocket::bytesWritten, this, &PipeClient::bytesWritten);
    connect(m_socket.get(), &QLocalSocket::disconnected, this, &PipeClient::onDisconnected);
    connect(&m_heartbeatTimer, &QTimer::timeout, this, [this] {
        send(toCompactJson({{"action", "heartbeat"}, {"request-id", m_heartbeatId}}));
    });

    // What happened before the signals were connected is not signalled again.
    QMetaObject::invokeMethod(this, &PipeClient::readMessages, Qt::QueuedConnection);
    if (m_socket->state() != QLocalSocket::ConnectedState)
        QMetaObject::invokeMethod(this, &PipeClient::onDisconnected, Qt::QueuedConnection);
}

// A socket that is deleted while connected says so, to members that would be gone by then.
PipeClient::~PipeClient()
{
    m_socket->disconnect(this);
}

void PipeClient::startHeartbeat(int intervalMs)
{
    m_heartbeatTimer.start(intervalMs);
}

void PipeClient::send(QByteArrayView payload)
{
    if (m_socket->state() == QLocalSocket::ConnectedState)
        m_socket->write(encodeFrame(payload));
}

void PipeClient::readMessages()
{
    m_decoder.append(m_socket->readAll());
    while (const std::optional<QByteArray> payload = m_decoder.next())
        handlePayload(*payload);
}

void PipeClient::handlePayload(const QByteArray &payload)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &error);
    if (error.error != QJsonParseError::NoError)
        emit malformedMessage(error.errorString());
    else if (!document.isObject())
        emit malformedMessage(QStringLiteral("not an object"));
    else if (!isAnswerTo(m_heartbeatId, document.object()))
        emit messageReceived(document.object());
}

void PipeClient::onDisconnected()
{
    if (m_disconnected)
        return;
    m_disconnected = true;
    m_heartbeatTimer.stop();
    readMessages();
    emit disconnected();
}

} // namespace ruvo
