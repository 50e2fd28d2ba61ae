#pragma once

#include "process/launch_context.h"

#include <QObject>

#include <atomic>

namespace ruvo {

/// Waits, on a thread of its own, for one run of a child to end or for being told to stop.
class ProcessMonitorWorker : public QObject
{
    Q_OBJECT

public:
    explicit ProcessMonitorWorker(LaunchContextPointer launch);
    ~ProcessMonitorWorker() override;

public slots:
    /// Returns when the child ended, the stop came, or the wait failed. Once, in the worker's thread.
    void startMonitoring();
    /// From any thread. A stop that comes before the start is remembered. After it no exit is signalled.
    void stopMonitoring();

signals:
    /// Emitted in the worker's thread.
    void processExited(int exitCode);

private:
    int exitCode() const;

    const LaunchContextPointer m_launch;
    const KernelHandle m_stopEvent;
    std::atomic<bool> m_running = false;
    std::atomic<bool> m_stopRequested = false;
};

} // namespace ruvo
