#pragma once

#include "process/launch_context.h"
#include "process/process_info.h"

#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <memory>

namespace ruvo {

class ProcessIOWorker;
class ProcessMonitorWorker;
class StdinWriter;

/// One supervised process: its runs one after another, how they are stopped, and whether they are started again.
///
/// Service thread, except for onWindowsProcessExited. Sending Ctrl+C changes the console of the whole daemon and
/// may block for a second; teardown waits for the run's threads, for 2 s each at most.
class ManagedProcess : public QObject
{
    Q_OBJECT

public:
    explicit ManagedProcess(const QString &processId, QObject *parent = nullptr);
    /// Asks a child that still runs to end (Ctrl+C, no deadline) and lets go of it.
    ~ManagedProcess() override;

    /// Takes the process specification and starts the first run. False (and logged) if it cannot be launched.
    bool start(const QJsonObject &spec);
    /// One run. Emits processStarted on success.
    bool launchWindowsProcess(const QJsonObject &spec);
    /// Asks the child to end, terminates it after `timeoutMs`; never if that is below 1. It is not restarted.
    void stop(int timeoutMs);
    /// Ends the child at once. It gives no processFinished, unless it had exited before.
    void kill();
    void terminateForcefully();
    bool sendCtrlC();
    /// Writes to the child's standard input if it runs; what becomes of the bytes is not known here.
    void writeToStdin(const QByteArray &bytes);
    /// Handles an exit that nobody has looked at yet, instead of leaving it to the event loop.
    void settleExit();
    /// Ends what could still come of this object: it has left the registry.
    void retire();

    ProcessInfo info() const;
    bool isRunning() const;
    /// Whether something may still come of this object: there is a run whose end has not been handled, or a restart
    /// is pending.
    bool isAlive() const { return !m_retired && (m_launch || m_restartTimer.isActive()); }

public slots:
    void stopKillTimer();
    /// In the monitor's thread.
    void onWindowsProcessExited(int exitCode);
    void handleProcessExit(int exitCode);
    void attemptRestart();

    // For the QProcess, which is never started: nothing calls these.
    void onProcessStarted();
    void onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);
    void onProcessError(QProcess::ProcessError error);
    void onProcessStateChanged(QProcess::ProcessState newState);
    void onStdoutReady();
    void onStderrReady();

signals:
    void processStarted(const QString &processId);
    void processFinished(const QString &processId, int exitCode);
    void processError(const QString &processId, const QString &error);
    void stdoutReady(const QString &processId, const QByteArray &data);
    void stderrReady(const QString &processId, const QByteArray &data);

private:
    void adopt(LaunchContextPointer launch);
    void startMonitor();
    void startReader();
    void releaseResources();
    void stopMonitor();
    void stopWorkers(unsigned long joinTimeoutMs);
    void finishOrRestart(int exitCode);
    QString processId() const { return m_info.processId; }

    ProcessInfo m_info; // its handles stay null: info() takes them from the run
    QProcess m_process{this};
    QTimer m_killTimer{this};
    QTimer m_restartTimer{this};
    QJsonObject m_spec;

    /// The current run; null between runs.
    LaunchContextPointer m_launch;
    /// Tells the exit of the latest run from that of an earlier one.
    std::weak_ptr<LaunchContext> m_latestLaunch;
    QThread *m_monitorThread = nullptr;
    ProcessMonitorWorker *m_monitorWorker = nullptr;
    QThread *m_ioThread = nullptr;
    ProcessIOWorker *m_ioWorker = nullptr;
    std::unique_ptr<StdinWriter> m_stdinWriter;
    bool m_retired = false;
};

} // namespace ruvo
