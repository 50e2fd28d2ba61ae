#include "process/output_collector.h"

#include "process/process_messages.h"

#include <utility>

namespace ruvo {

void OutputCollector::appendStdout(const QString &processId, const QByteArray &bytes)
{
    m_buffers[processId].stdoutBytes += bytes;
}

void OutputCollector::appendStderr(const QString &processId, const QByteArray &bytes)
{
    m_buffers[processId].stderrBytes += bytes;
}

QList<QJsonObject> OutputCollector::flush()
{
    QList<QJsonObject> events;
    for (auto entry = m_buffers.begin(); entry != m_buffers.end(); ++entry)
        appendEvents(entry.key(), entry.value(), events);
    return events;
}

QList<QJsonObject> OutputCollector::take(const QString &processId)
{
    QList<QJsonObject> events;
    OutputBuffers buffers = m_buffers.take(processId);
    appendEvents(processId, buffers, events);
    return events;
}

void OutputCollector::appendEvents(const QString &processId, OutputBuffers &buffers, QList<QJsonObject> &events)
{
    if (const QByteArray bytes = std::exchange(buffers.stdoutBytes, {}); !bytes.isEmpty())
        events.append(createEventObject(processId, "stdout", QString::fromUtf8(bytes)));
    if (const QByteArray bytes = std::exchange(buffers.stderrBytes, {}); !bytes.isEmpty())
        events.append(createEventObject(processId, "stderr", QString::fromUtf8(bytes)));
}

} // namespace ruvo
