#include "ipc/frame.h"

#include <QtEndian>

namespace ruvo {

namespace {

constexpr qsizetype lengthFieldSize = 4;
/// A buffer that a large message left behind is given back; a small one is kept for the next message.
constexpr qsizetype keptCapacity = 64 * 1024;

} // namespace

QByteArray encodeFrame(QByteArrayView payload)
{
    QByteArray frame;
    frame.reserve(lengthFieldSize + payload.size());
    frame.resize(lengthFieldSize);
    qToBigEndian(static_cast<qint32>(payload.size()), frame.data());
    frame.append(payload);
    return frame;
}

void FrameDecoder::append(const QByteArray &bytes)
{
    m_buffer.append(bytes);
}

std::optional<QByteArray> FrameDecoder::next()
{
    if (m_buffer.size() < lengthFieldSize)
        return std::nullopt;
    // 64-bit: with a length field of 0xFFFFFFFC or more, a 32-bit sum would wrap to a few bytes.
    const auto payloadSize = static_cast<qint64>(qFromBigEndian<quint32>(m_buffer.constData()));
    const qint64 frameSize = payloadSize + lengthFieldSize;
    if (m_buffer.size() < frameSize)
        return std::nullopt;

    QByteArray payload = m_buffer.mid(lengthFieldSize, payloadSize);
    if (m_buffer.size() > frameSize)
        m_buffer.remove(0, frameSize); // moves the start, not the bytes
    else if (m_buffer.capacity() > keptCapacity)
        m_buffer = QByteArray();
    else
        m_buffer.resize(0);
    return payload;
}

} // namespace ruvo
