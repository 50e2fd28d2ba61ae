#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <thread>

namespace ruvo {

/// Writes lines to standard output, each at once, on a thread of its own: whoever reads them may stop for a
/// while (a pager) without stopping the heartbeats.
class OutputWriter : public QObject
{
    Q_OBJECT

public:
    explicit OutputWriter(QObject *parent = nullptr);
    /// Writes what is left.
    ~OutputWriter() override;

    void write(const QByteArray &line);

signals:
    /// Nobody takes the output any more. Comes from the writer's thread.
    void failed();

private:
    void run();

    QMutex m_mutex;
    QWaitCondition m_changed;
    QList<QByteArray> m_lines; // guarded by m_mutex
    bool m_ending = false;     // guarded by m_mutex
    std::thread m_thread;
};

} // namespace ruvo
