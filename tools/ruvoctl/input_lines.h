#pragma once

#include <QByteArray>

#include <optional>

namespace ruvo {

/// Cuts a byte stream into lines, whatever pieces it comes in. Line ends are "\n" or "\r\n"; a byte order
/// mark at the start of the stream is dropped (Windows tools like to put one there).
class InputLines
{
public:
    void append(const QByteArray &bytes);
    /// The next whole line without its end, or nothing until more bytes come.
    std::optional<QByteArray> next();
    /// At the end of the stream, after the whole lines: what follows the last line end, if anything does.
    std::optional<QByteArray> rest();

    /// Number of the line that was returned last; the first is 1.
    qint64 lineNumber() const { return m_lineNumber; }

private:
    QByteArray take(qsizetype length, qsizetype lengthWithEnd);

    QByteArray m_buffer;
    /// How much of the buffer is known to hold no line end: a line of megabytes is searched once, not once
    /// for each piece that it comes in.
    qsizetype m_searched = 0;
    qint64 m_lineNumber = 0;
};

} // namespace ruvo
