#include "ipc/client_connection.h"

#include "common/log_category.h"

#include <QJsonDocument>
#include <QRandomGenerator>

namespace ruvo {

ClientConnection::ClientConnection(QObject *parent)
    : QObject(parent), m_clientId(QString::number(QRandomGenerator::system()->generate64(), 16))
{}

ClientConnection::~ClientConnection()
{
    if (m_socket)
        disconnectQuietly();
}

void ClientConnection::setSocket(QLocalSocket *socket, quint32 sessionId)
{
    m_sessionId = sessionId;
    m_socket = socket;
    m_socket->setParent(this);
    // What is read ahead while this thread is busy; the rest waits in the pipe, with the client.
    m_socket->setReadBufferSize(readAheadLimit);
    connect(m_socket, &QLocalSocket::readyRead, this, &ClientConnection::onDataReady);
    connect(m_socket, &QLocalSocket::disconnected, this, &ClientConnection::onSocketDisconnected);
    connect(m_socket, &QLocalSocket::errorOccurred, this, &ClientConnection::onSocketError);

    // What happened before the signals were connected is not signalled again.
    if (m_socket->bytesAvailable() > 0)
        QMetaObject::invokeMethod(this, &ClientConnection::onDataReady, Qt::QueuedConnection);
    if (m_socket->state() != QLocalSocket::ConnectedState)
        QMetaObject::invokeMethod(this, &ClientConnection::onSocketDisconnected, Qt::QueuedConnection);
}

void ClientConnection::onDataReady()
{
    // The handler of a message may run an event loop of its own. The client's next message waits for it, so that
    // answers keep their order.
    if (m_delivering)
        return;
    m_delivering = true;
    do {
        m_readBuffer.append(m_socket->readAll());
        deliverMessages();
        // The socket signals nothing of what came meanwhile: without another look it would wait for the next byte.
    } while (!m_retired && m_socket->bytesAvailable() > 0);
    m_delivering = false;
    if (m_retired)
        deleteLater();
}

void ClientConnection::deliverMessages()
{
    while (!m_retired) {
        const std::optional<QByteArray> payload = m_readBuffer.next();
        if (!payload)
            return;
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(*payload, &error);
        // The length was honoured, so the stream is still in step: whatever is no message is skipped.
        if (error.error != QJsonParseError::NoError || !document.isObject())
            continue;
        emit messageReceived(m_clientId, document.object());
    }
}

void ClientConnection::send(const QJsonObject &message)
{
    if (!m_socket || m_socket->state() != QLocalSocket::ConnectedState || m_unsentLimitReached)
        return;
    m_socket->write(encodeFrame(QJsonDocument(message).toJson(QJsonDocument::Compact)));

    if (m_socket->bytesToWrite() > maxUnsentBytes) {
        m_unsentLimitReached = true;
        qCWarning(lcRuvod) << "Client" << m_clientId
                           << "does not read its messages, bytes unsent:" << m_socket->bytesToWrite()
                           << "- disconnecting";
        // Queued: whoever sends may be walking the clients that this would remove one from.
        QMetaObject::invokeMethod(this, &ClientConnection::onSocketDisconnected, Qt::QueuedConnection);
    }
}

void ClientConnection::disconnectQuietly()
{
    m_socket->disconnect(this);
    disconnect();
    if (m_socket->state() != QLocalSocket::UnconnectedState)
        m_socket->disconnectFromServer();
}

void ClientConnection::retire()
{
    m_retired = true;
    if (!m_delivering)
        deleteLater();
}

void ClientConnection::onSocketDisconnected()
{
    emit clientDisconnected(m_clientId);
}

void ClientConnection::onSocketError(QLocalSocket::LocalSocketError)
{
    emit clientDisconnected(m_clientId);
}

} // namespace ruvo
