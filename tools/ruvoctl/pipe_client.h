#pragma once

#include "ipc/frame.h"

#include <QByteArrayView>
#include <QJsonObject>
#include <QLocalSocket>
#include <QObject>
#include <QTimer>

#include <memory>

namespace ruvo {

/// A client's end of the daemon's pipe: messages both ways, and heartbeats of its own whose answers it keeps
/// to itself. Lives on one thread, with an event loop.
class PipeClient : public QObject
{
    Q_OBJECT

public:
    /// Well below the 10 s after which the daemon gives a silent client up.
    static constexpr int heartbeatIntervalMs = 3000;

    /// Takes a connected socket. What it has already received is delivered once the event loop runs.
    explicit PipeClient(std::unique_ptr<QLocalSocket> socket, QObject *parent = nullptr);
    ~PipeClient() override;

    void startHeartbeat(int intervalMs = heartbeatIntervalMs);
    /// `payload` is one JSON document in UTF-8.
    void send(QByteArrayView payload);
    /// What the daemon has not taken yet.
    qint64 unsentBytes() const { return m_socket->bytesToWrite(); }

signals:
    void messageReceived(const QJsonObject &message);
    /// A frame came whose payload is no JSON object.
    void malformedMessage(const QString &reason);
    void bytesWritten();
    /// Once, after all messages that came before it.
    void disconnected();

private:
    void readMessages();
    void handlePayload(const QByteArray &payload);
    void onDisconnected();

    const std::unique_ptr<QLocalSocket> m_socket;
    const QString m_heartbeatId;
    FrameDecoder m_decoder;
    QTimer m_heartbeatTimer;
    bool m_disconnected = false;
};

} // namespace ruvo
