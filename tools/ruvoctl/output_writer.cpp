#include "ruvoctl/output_writer.h"

#include "ruvoctl/standard_streams.h"

namespace ruvo {

OutputWriter::OutputWriter(QObject *parent) : QObject(parent), m_thread([this] { run(); }) {}

OutputWriter::~OutputWriter()
{
    {
        const QMutexLocker lock(&m_mutex);
        m_ending = true;
        m_changed.wakeOne();
    }
    m_thread.join();
}

void OutputWriter::write(const QByteArray &line)
{
    const QMutexLocker lock(&m_mutex);
    m_lines.append(line + '\n');
    m_changed.wakeOne();
}

void OutputWriter::run()
{
    QMutexLocker lock(&m_mutex);
    while (true) {
        while (m_lines.isEmpty() && !m_ending)
            m_changed.wait(&m_mutex);
        if (m_lines.isEmpty())
            return;
        const QByteArray line = m_lines.takeFirst();
        lock.unlock();
        if (!writeUtf8(STD_OUTPUT_HANDLE, line)) {
            emit failed();
            return;
        }
        lock.relock();
    }
}

} // namespace ruvo
