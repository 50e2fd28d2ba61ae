#include "support/pipe_client.h"

#include "support/plain_frames.h"
#include "support/wait_until.h"

#include <QJsonDocument>

namespace ruvo::test {

bool PipeClient::waitUntilSent()
{
    return waitUntil([this] { return m_socket.bytesToWrite() == 0; });
}

const QByteArray &PipeClient::received()
{
    // A socket that has closed still holds what came before; reading from one that never opened only warns.
    if (m_socket.isReadable())
        m_received.append(m_socket.readAll());
    return m_received;
}

QList<QJsonObject> PipeClient::messages()
{
    QList<QJsonObject> messages;
    for (const QByteArray &payload : plainFrames(received()))
        messages.append(QJsonDocument::fromJson(payload).object());
    return messages;
}

QByteArray PipeClient::lengthField(quint32 length)
{
    QByteArray field(4, '\0');
    for (int i = 0; i < 4; ++i)
        field[i] = static_cast<char>((length >> (24 - 8 * i)) & 0xFF);
    return field;
}

QByteArray PipeClient::frame(const QByteArray &payload)
{
    return lengthField(static_cast<quint32>(payload.size())) + payload;
}

} // namespace ruvo::test
