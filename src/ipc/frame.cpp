#include "ipc/frame.h"

#include <QtEndian>

namespace ruvo {

namespace {

constexpr qsizetype lengthFieldSize = 4;
/// A buffer of this size is kept for the next message; a larger one is given back once it is mostly empty.
constexpr qsizetype keptCapacity = 64 * 1024;
/// "Mostly empty". Each copy to a smaller buffer moves at most this share of the bytes that were taken before it,
/// so a buffer full of small frames still costs time in proportion to its size.
constexpr qsizetype mostlyEmpty = 4;

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
    m_buffer.remove(0, frameSize); // moves the start, not the bytes
    if (m_buffer.capacity() > keptCapacity && m_buffer.size() < m_buffer.capacity() / mostlyEmpty)
        m_buffer = QByteArray(m_buffer.constData(), m_buffer.size());
    return payload;
}

} // namespace ruvo
