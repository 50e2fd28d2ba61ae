#pragma once

#include "ipc/frame.h"

#include <QJsonObject>
#include <QLocalSocket>
#include <QObject>
#include <QPointer>

namespace ruvo {

/// The daemon's end of one connected client: an accepted socket, the client's random id, and JSON objects
/// cut from and written to its byte stream.
///
/// Everything runs on the service thread. Destroyed only by deferred deletion, ordered by CommunicationServer.
class ClientConnection : public QObject
{
    Q_OBJECT

public:
    /// What may wait unsent for a client that does not read, in bytes. Beyond it the client counts as gone.
    static constexpr qint64 maxUnsentBytes = 64 * 1024 * 1024;
    /// What the socket reads before it is taken from it, in bytes.
    static constexpr qint64 readAheadLimit = 1024 * 1024;
    /// What is taken from the socket before the event loop has its turn again, in bytes.
    static constexpr qint64 sliceSize = 64 * 1024;

    explicit ClientConnection(QObject *parent = nullptr);
    ~ClientConnection() override;

    /// Takes ownership of the accepted `socket`. `sessionId` is the Windows session of the pipe it came through.
    void setSocket(QLocalSocket *socket, quint32 sessionId);

    /// Writes one message; nothing if the client is gone. Delivery is left to the socket and the event loop.
    void send(const QJsonObject &message);

    /// While a client is held back, nothing is read or delivered: what it sends waits in the pipe, with the client,
    /// and so does its departure. Takes effect at once, also from within messageReceived; the end of it in the event
    /// loop.
    void setHeldBack(bool held);

    /// Whether this end of the client's pipe is still open.
    bool isOpen() const { return m_socket && m_socket->state() != QLocalSocket::UnconnectedState; }

    /// 1 to 16 lower-case hexadecimal digits; the client's key everywhere.
    QString clientId() const { return m_clientId; }
    /// 0 until setSocket.
    quint32 sessionId() const { return m_sessionId; }
    /// The length of the last message that was delivered as it came, in bytes.
    qsizetype messageSize() const { return m_messageSize; }

    /// Ends the connection from this side. No signal is emitted by this object from here on.
    void disconnectQuietly();

signals:
    /// Whoever receives this must not run an event loop of its own: this object and the socket are on the stack.
    void messageReceived(const QString &clientId, const QJsonObject &message);
    /// May be emitted more than once (an error is followed by a disconnect).
    void clientDisconnected(const QString &clientId);

private slots:
    void onDataReady();
    void onSocketDisconnected();
    void onSocketError(QLocalSocket::LocalSocketError error);

private:
    void deliverMessages();
    void readOnLater();

    const QString m_clientId;
    quint32 m_sessionId = 0;
    QLocalSocket *m_socket = nullptr;
    FrameDecoder m_readBuffer;
    bool m_unsentLimitReached = false;
    qsizetype m_messageSize = 0;
    bool m_heldBack = false;
    bool m_isLeaving = false;
    bool m_readsOnLater = false;
};

} // namespace ruvo
