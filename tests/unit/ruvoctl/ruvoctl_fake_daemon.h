#pragma once

#include "ipc/frame.h"
#include "ruvoctl/pipe_client.h"
#include "ruvoctl/request.h"
#include "support/wait_until.h"

#include <QJsonDocument>
#include <QLocalServer>
#include <QUuid>

#include <memory>

namespace ruvo::test {

/// The other end of a PipeClient: keeps what it receives and says what it is told to.
class FakeDaemon
{
public:
    FakeDaemon()
    {
        const QString name = "ruvoctl-test-" + QUuid::createUuid().toString(QUuid::Id128);
        QLocalServer server;
        server.listen(name);
        m_clientSocket = std::make_unique<QLocalSocket>();
        m_clientSocket->connectToServer(name);
        waitUntil([&] { return server.hasPendingConnections(); });
        m_socket = server.nextPendingConnection();
        m_socket->setParent(nullptr);
    }
    ~FakeDaemon() { delete m_socket; }
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    /// For the one client.
    std::unique_ptr<QLocalSocket> takeClientSocket() { return std::move(m_clientSocket); }

    void sendRaw(const QByteArray &bytes) { m_socket->write(bytes); }
    void sendText(const QByteArray &text) { sendRaw(encodeFrame(text)); }
    void send(const QJsonObject &message) { sendText(toCompactJson(message)); }
    void disconnectClient() { m_socket->disconnectFromServer(); }
    /// Until then nothing more than that is taken from the client.
    void setReadLimit(qint64 bytes) { m_socket->setReadBufferSize(bytes); }

    const QList<QByteArray> &received()
    {
        m_decoder.append(m_socket->readAll());
        while (const std::optional<QByteArray> payload = m_decoder.next())
            m_received.append(*payload);
        return m_received;
    }
    bool waitForMessages(qsizetype count)
    {
        return waitUntil([&] { return received().size() >= count; });
    }
    QJsonObject message(qsizetype index) { return QJsonDocument::fromJson(received().value(index)).object(); }

private:
    std::unique_ptr<QLocalSocket> m_clientSocket;
    QLocalSocket *m_socket = nullptr;
    FrameDecoder m_decoder;
    QList<QByteArray> m_received;
};

} // namespace ruvo::test
