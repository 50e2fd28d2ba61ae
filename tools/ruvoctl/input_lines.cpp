#include "ruvoctl/input_lines.h"

namespace ruvo {

namespace {

constexpr char byteOrderMark[] = "\xEF\xBB\xBF";

} // namespace

void InputLines::append(const QByteArray &bytes)
{
    m_buffer.append(bytes);
}

std::optional<QByteArray> InputLines::next()
{
    const qsizetype end = m_buffer.indexOf('\n', m_searched);
    if (end < 0) {
        m_searched = m_buffer.size();
        return std::nullopt;
    }
    return take(end, end + 1);
}

std::optional<QByteArray> InputLines::rest()
{
    if (m_buffer.isEmpty())
        return std::nullopt;
    return take(m_buffer.size(), m_buffer.size());
}

QByteArray InputLines::take(qsizetype length, qsizetype lengthWithEnd)
{
    QByteArray line = m_buffer.left(length);
    m_buffer.remove(0, lengthWithEnd);
    m_searched = 0;
    if (line.endsWith('\r'))
        line.chop(1);
    if (m_lineNumber++ == 0 && line.startsWith(byteOrderMark))
        line.remove(0, 3);
    return line;
}

} // namespace ruvo
