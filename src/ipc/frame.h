#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

namespace ruvo {

/// A message on the pipe: its payload's length as 4 bytes, big-endian, then the payload. Both directions.
/// `payload` is at most 0x7FFFFFFF bytes.
QByteArray encodeFrame(QByteArrayView payload);

/// Cuts a byte stream back into payloads. Holds what was received and not yet taken.
///
/// There is no upper limit on a frame: a length that never arrives keeps everything behind it waiting, and
/// the buffer grows with what really comes (never ahead of it, whatever the length field claims).
/// Safe to call again from within whatever handles a payload: `next` has removed it before it returns it.
class FrameDecoder
{
public:
    void append(const QByteArray &bytes);

    /// The next whole payload, or nothing until more bytes come.
    std::optional<QByteArray> next();

    /// The memory that is held, in bytes: what a large message took is given back after it.
    qsizetype capacity() const { return m_buffer.capacity(); }

private:
    QByteArray m_buffer;
};

} // namespace ruvo
