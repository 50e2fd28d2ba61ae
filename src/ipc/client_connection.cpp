#include "ipc/client_connection.h"

#include "common/log_category.h"

#include <QJsonDocument>
#include <QRandomGenerator>

#include <utility>

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

void ClientConnection::setHeldBack(bool held)
{
    m_heldBack = held;
    // What came meanwhile is not signalled again.
    if (!held)
        readOnLater();
}

void ClientConnection::readOnLater()
{
    if (std::exchange(m_readsOnLater, true))
        return;
    const auto readOn = [this] {
        m_readsOnLater = false;
        onDataReady();
    };
    QMetaObject::invokeMethod(this, readOn, Qt::QueuedConnection);
}

void ClientConnection::onDataReady()
{
    deliverMessages();
    // Taken from the socket only once everything before it is delivered: else a client that is held back again and
    // again would have its bytes collected here, instead of waiting with them. A slice at a time, as what is no
    // message takes time too, and holds nobody back.
    if (!m_heldBack && m_socket->bytesAvailable() > 0) {
        m_readBuffer.append(m_socket->read(sliceSize));
        deliverMessages();
    }
    if (m_heldBack)
        return;
    if (m_socket->bytesAvailable() > 0)
        readOnLater();
    else if (m_isLeaving)
        emit clientDisconnected(m_clientId);
}

void ClientConnection::deliverMessages()
{
    while (!m_heldBack) {
        const std::optional<QByteArray> payload = m_readBuffer.next();
        if (!payload)
            return;
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(*payload, &error);
        // The length was honoured, so the stream is still in step: whatever is no message is skipped.
        if (error.error != QJsonParseError::NoError || !document.isObject())
            continue;
        m_messageSize = payload->size();
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
        QMetaObject::invokeMethod(
            this, [this] { emit clientDisconnected(m_clientId); }, Qt::QueuedConnection);
    }
}

void ClientConnection::disconnectQuietly()
{
    m_socket->disconnect(this);
    disconnect();
    if (m_socket->state() != QLocalSocket::UnconnectedState)
        m_socket->disconnectFromServer();
}

// The last words first. A client that is held back leaves when it may be read again: what comes behind its departure
// would be lost, and keeping it all here would take as much memory as it likes.
void ClientConnection::onSocketDisconnected()
{
    m_isLeaving = true;
    onDataReady();
}

void ClientConnection::onSocketError(QLocalSocket::LocalSocketError)
{
    onSocketDisconnected();
}

} // namespace ruvo
