#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QLocalSocket>

namespace ruvo::test {

/// A client of a pipe, as its bytes are on the wire; it shares no code with the product. Needs the event loop.
class PipeClient
{
public:
    /// Connects at once; whether that worked is told by isConnected().
    explicit PipeClient(const QString &pipeName) { m_socket.connectToServer(pipeName); }

    bool isConnected() const { return m_socket.state() == QLocalSocket::ConnectedState; }
    bool isGone() const { return m_socket.state() == QLocalSocket::UnconnectedState; }

    /// Bytes as they are.
    void write(const QByteArray &bytes) { m_socket.write(bytes); }
    void send(const QByteArray &json) { write(frame(json)); }
    /// Everything that was sent so far is out of this process's hands.
    bool waitUntilSent();
    /// Leaves without a goodbye.
    void drop() { m_socket.abort(); }

    /// All bytes that came so far.
    const QByteArray &received();
    /// All whole messages that came so far.
    QList<QJsonObject> messages();

    QLocalSocket &socket() { return m_socket; }

    /// Big-endian length and payload.
    static QByteArray frame(const QByteArray &payload);
    static QByteArray lengthField(quint32 length);

private:
    QLocalSocket m_socket;
    QByteArray m_received;
};

} // namespace ruvo::test
