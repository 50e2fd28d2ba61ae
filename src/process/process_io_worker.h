#pragma once

#include "process/launch_context.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <atomic>

namespace ruvo {

/// Reads, on a thread of its own, what one run of a child writes to its standard output and error.
///
/// Polls: at most 4096 bytes of each stream in 50 ms. A child that writes faster is held back by its full pipe.
class ProcessIOWorker : public QObject
{
    Q_OBJECT

public:
    ProcessIOWorker(const QString &processId, LaunchContextPointer launch);
    ~ProcessIOWorker() override;

public slots:
    /// Returns when it is told to stop or the child counts as ended. Once, in the worker's thread.
    void startReading();
    /// From any thread. A stop that comes before the start is remembered.
    void stopReading();

signals:
    void stdoutReady(const QString &processId, const QByteArray &data);
    void stderrReady(const QString &processId, const QByteArray &data);

private:
    static QByteArray readAvailable(HANDLE pipe);

    const QString m_processId;
    const LaunchContextPointer m_launch;
    std::atomic<bool> m_running = false;
    std::atomic<bool> m_stopRequested = false;
};

} // namespace ruvo
