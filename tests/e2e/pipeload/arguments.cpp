#include "pipeload/arguments.h"

namespace ruvo::test {

namespace {

qint64 parseNumber(const QString &name, const QString &text, qint64 max)
{
    bool ok = false;
    const qint64 number = text.toLongLong(&ok);
    if (!ok || number < 0 || number > max)
        throw UsageError(
            qPrintable(QStringLiteral("--%1: '%2' is not a number from 0 to %3").arg(name, text).arg(max)));
    return number;
}

} // namespace

Arguments::Arguments(const QStringList &words)
{
    for (qsizetype i = 0; i < words.size(); i += 2) {
        if (!words[i].startsWith("--") || i + 1 == words.size())
            throw UsageError(qPrintable("not an option with a value: " + words[i]));
        m_values.insert(words[i].mid(2), words[i + 1]);
    }
}

qint64 Arguments::number(const QString &name, qint64 absent, qint64 max)
{
    const auto value = m_values.constFind(name);
    return value == m_values.constEnd() ? absent : parseNumber(name, m_values.take(name), max);
}

std::chrono::milliseconds Arguments::milliseconds(const QString &name, qint64 absent)
{
    return std::chrono::milliseconds(number(name, absent, std::numeric_limits<int>::max()));
}

QList<quint32> Arguments::sessions(const QString &name, const QString &absent)
{
    const QString text = m_values.contains(name) ? m_values.take(name) : absent;
    QList<quint32> sessions;
    const QStringList words = text.split(u',', Qt::SkipEmptyParts);
    for (const QString &word : words)
        sessions.append(static_cast<quint32>(parseNumber(name, word, std::numeric_limits<quint32>::max())));
    return sessions;
}

quint32 Arguments::session()
{
    return static_cast<quint32>(number("session", 1, std::numeric_limits<quint32>::max()));
}

void Arguments::expectNoOther() const
{
    if (!m_values.isEmpty())
        throw UsageError(qPrintable("unknown option: --" + m_values.keys().first()));
}

} // namespace ruvo::test
