#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>

namespace ruvo {

/// Output of one process since the last flush.
struct OutputBuffers
{
    QByteArray stdoutBytes;
    QByteArray stderrBytes;
};

/// The output of all processes that waits to be published. An entry comes with the first output of a process and
/// stays until it is taken.
class OutputCollector
{
public:
    void appendStdout(const QString &processId, const QByteArray &bytes);
    void appendStderr(const QString &processId, const QByteArray &bytes);

    /// The events for all that waits: of each process standard output, then standard error. The bytes of a flush are
    /// decoded on their own, so a character that is cut at its border becomes replacement characters.
    QList<QJsonObject> flush();
    /// The last events of one process, whose entry goes.
    QList<QJsonObject> take(const QString &processId);
    /// Drops what waits for a process, and its entry.
    void remove(const QString &processId) { m_buffers.remove(processId); }

    bool contains(const QString &processId) const { return m_buffers.contains(processId); }

private:
    static void appendEvents(const QString &processId, OutputBuffers &buffers, QList<QJsonObject> &events);

    QHash<QString, OutputBuffers> m_buffers;
};

} // namespace ruvo
