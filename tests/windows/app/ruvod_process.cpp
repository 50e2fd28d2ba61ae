#include "windows/app/ruvod_process.h"

#include "support/wait_until.h"

namespace ruvo::test {

RuvodProcess::RuvodProcess(const QStringList &options, const QStringList &arguments)
    : m_process("ruvod", options + QStringList{"--"} + arguments)
{}

bool RuvodProcess::waitForState(DWORD state)
{
    const QString start = QString::number(state) + u' ';
    return waitUntil([&] {
        const QStringList all = reports();
        return !all.isEmpty() && all.last().startsWith(start);
    });
}

std::optional<DWORD> RuvodProcess::control(DWORD code)
{
    const qsizetype before = notes("result ").size();
    m_process.write("control " + QByteArray::number(static_cast<uint>(code)) + '\n');
    if (!waitUntil([&] { return notes("result ").size() > before; }))
        return std::nullopt;
    bool answered = false;
    const DWORD result = notes("result ").last().toUInt(&answered);
    return answered ? std::optional(result) : std::nullopt;
}

QStringList RuvodProcess::notes(const QByteArray &prefix)
{
    QStringList notes;
    const QByteArray start = '@' + prefix;
    for (const QByteArray &line : m_process.output().split('\n')) {
        if (line.startsWith(start))
            notes.append(QString::fromUtf8(line.mid(start.size())));
    }
    return notes;
}

QByteArray RuvodProcess::output()
{
    QByteArray text;
    for (const QByteArray &line : m_process.output().split('\n')) {
        if (!line.startsWith('@'))
            text += line + '\n';
    }
    text.chop(1); // split makes an empty line of what follows the last line end
    return text;
}

QStringList RuvodProcess::log()
{
    constexpr qsizetype timeLength = sizeof("[yyyy-MM-dd hh:mm:ss.zzz] ") - 1;
    QStringList lines;
    for (const QByteArray &line : m_process.errors().split('\n')) {
        if (line.startsWith('['))
            lines.append(QString::fromUtf8(line.mid(timeLength)));
    }
    return lines;
}

} // namespace ruvo::test
