#include "process/managed_process.h"

#include "common/log_category.h"
#include "process/child_launch.h"
#include "process/console_interrupt.h"
#include "process/process_io_worker.h"
#include "process/process_monitor_worker.h"
#include "process/process_specification.h"
#include "process/restart_policy.h"
#include "process/stdin_writer.h"

#include <QCoreApplication>

#include <algorithm>
#include <utility>

namespace ruvo {

namespace {

constexpr unsigned long releaseJoinTimeout = 2000;    // ms
constexpr unsigned long destructorJoinTimeout = 5000; // ms

/// Ends `thread`, whose worker has been told to stop, and deletes both. A thread that does not end is left behind:
/// deleting it under its worker would crash, and its worker keeps the handles that it uses.
template<typename Worker>
void joinWorker(QThread *&thread, Worker *&worker, unsigned long timeoutMs)
{
    QThread *const endingThread = std::exchange(thread, nullptr);
    Worker *const endingWorker = std::exchange(worker, nullptr);
    if (!endingThread)
        return;
    endingThread->quit();
    if (endingThread->wait(timeoutMs)) {
        delete endingWorker;
        delete endingThread;
        return;
    }
    qCWarning(lcRuvod) << "[ManagedProcess] A worker thread did not end within" << timeoutMs
                       << "ms, leaving it behind";
    endingThread->setParent(nullptr);
    endingWorker->disconnect(); // whom it would tell may be gone by then
    QObject::connect(endingThread, &QThread::finished, endingWorker, &QObject::deleteLater);
    QObject::connect(endingThread, &QThread::finished, endingThread, &QObject::deleteLater);
}

} // namespace

ManagedProcess::ManagedProcess(const QString &processId, QObject *parent) : QObject(parent)
{
    m_info.processId = processId;
    m_killTimer.setSingleShot(true);
    m_restartTimer.setSingleShot(true);
    connect(&m_killTimer, &QTimer::timeout, this, &ManagedProcess::kill);
    connect(&m_restartTimer, &QTimer::timeout, this, &ManagedProcess::attemptRestart);
}

ManagedProcess::~ManagedProcess()
{
    stopWorkers(destructorJoinTimeout);
    if (!m_launch)
        return;
    if (!m_launch->hasExited()) // else its console is gone, which would be taken for a failure
        sendCtrlC();
    releaseResources();
}

bool ManagedProcess::start(const QJsonObject &spec)
{
    m_spec = spec;
    parseProcessSpec(spec, m_info);
    return launchWindowsProcess(spec);
}

bool ManagedProcess::launchWindowsProcess(const QJsonObject &)
{
    LaunchContextPointer launch = launchChild(m_info);
    if (!launch)
        return false;
    adopt(std::move(launch));
    qCDebug(lcRuvod) << "[ProcessManager] Process started with PID:" << m_info.pid;
    emit processStarted(processId());
    if (!m_launch) // who heard of the start has ended the child already
        return true;
    startMonitor();
    startReader();
    return true;
}

void ManagedProcess::adopt(LaunchContextPointer launch)
{
    m_launch = std::move(launch);
    m_latestLaunch = m_launch;
    m_stdinWriter = std::make_unique<StdinWriter>(m_launch);
    m_info.pid = m_launch->pid;
    m_info.state = QProcess::Running;
    m_info.startTime = QDateTime::currentDateTime();
}

void ManagedProcess::startMonitor()
{
    m_monitorThread = new QThread(this);
    m_monitorWorker = new ProcessMonitorWorker(m_launch);
    m_monitorWorker->moveToThread(m_monitorThread);
    connect(m_monitorThread, &QThread::started, m_monitorWorker, &ProcessMonitorWorker::startMonitoring);
    const QMetaObject::Connection connection = connect(m_monitorWorker, &ProcessMonitorWorker::processExited, this,
                                                       &ManagedProcess::onWindowsProcessExited, Qt::DirectConnection);
    qCDebug(lcRuvod) << "[ProcessManager] Monitor signal connected:" << static_cast<bool>(connection) << "for process"
                     << processId() << "(DirectConnection)";
    m_monitorThread->start(QThread::InheritPriority);
}

void ManagedProcess::startReader()
{
    m_ioThread = new QThread(this);
    m_ioWorker = new ProcessIOWorker(processId(), m_launch);
    m_ioWorker->moveToThread(m_ioThread);
    connect(m_ioWorker, &ProcessIOWorker::stdoutReady, this, &ManagedProcess::stdoutReady);
    connect(m_ioWorker, &ProcessIOWorker::stderrReady, this, &ManagedProcess::stderrReady);
    connect(m_ioThread, &QThread::started, m_ioWorker, &ProcessIOWorker::startReading);
    m_ioThread->start(QThread::InheritPriority);
}

void ManagedProcess::stop(int timeoutMs)
{
    qCDebug(lcRuvod) << "[ManagedProcess::stop] Called for process" << processId() << "with timeout" << timeoutMs;
    if (m_restartTimer.isActive()) {
        qCDebug(lcRuvod) << "[ManagedProcess::stop] Canceling pending restart for process" << processId();
        m_restartTimer.stop();
    }
    m_info.autoRestart = false;
    m_info.restartAttempts = 0;
    if (!m_launch) {
        qCDebug(lcRuvod) << "[ManagedProcess::stop] Process" << processId() << "already not running (no handle)";
        return;
    }
    qCDebug(lcRuvod) << "[ManagedProcess::stop] Terminating Windows process" << processId() << "with PID"
                     << m_info.pid;
    if (!sendCtrlC()) {
        qCWarning(lcRuvod) << "[ManagedProcess::stop] Failed to send Ctrl+C to process" << processId()
                           << ", killing immediately (handle:" << (m_launch->process ? "valid" : "null") << ")";
        terminateForcefully();
        return;
    }
    if (timeoutMs < 1)
        return;
    m_killTimer.start(timeoutMs);
    qCDebug(lcRuvod) << "[ManagedProcess::stop] Kill timer started for" << timeoutMs << "ms";
}

bool ManagedProcess::sendCtrlC()
{
    if (!m_launch)
        return false;
    qCDebug(lcRuvod) << "[ProcessManager] Sending Ctrl+C to process" << m_info.pid;
    return sendCtrlCToConsoleOf(m_launch->pid);
}

void ManagedProcess::stopKillTimer()
{
    m_killTimer.stop();
}

void ManagedProcess::kill()
{
    stopKillTimer();
    if (!m_launch)
        return;
    qCDebug(lcRuvod) << "Killing process" << processId() << "with PID" << m_info.pid;
    terminateForcefully();
}

void ManagedProcess::terminateForcefully()
{
    if (!m_launch) {
        qCWarning(lcRuvod) << "[ProcessManager] Cannot kill process" << processId() << "- no handle";
        return;
    }
    qCInfo(lcRuvod) << "[ProcessManager] Forcefully terminating process" << processId() << "with PID" << m_info.pid;
    // Before the child ends: the monitor must not take this for an exit, which would be reported and restarted.
    stopMonitor();
    if (TerminateProcess(m_launch->process.get(), 1)) {
        qCInfo(lcRuvod) << "[ProcessManager] TerminateProcess succeeded for" << processId();
    } else {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "[ProcessManager] TerminateProcess failed for" << processId() << "with error:" << error;
    }
    releaseResources();
}

void ManagedProcess::writeToStdin(const QByteArray &bytes)
{
    if (m_launch && m_launch->state == QProcess::Running)
        m_stdinWriter->write(bytes);
}

void ManagedProcess::settleExit()
{
    if (!m_launch || !m_launch->hasExited())
        return;
    joinWorker(m_monitorThread, m_monitorWorker, releaseJoinTimeout); // it has posted the exit by then
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
}

void ManagedProcess::retire()
{
    m_retired = true;
    m_killTimer.stop();
    m_restartTimer.stop();
    disconnect();
}

void ManagedProcess::onWindowsProcessExited(int exitCode)
{
    qCDebug(lcRuvod) << "[ProcessManager::onWindowsProcessExited] CALLED for process" << processId()
                     << "with exit code" << exitCode;
    // m_latestLaunch is not touched by the service thread while this run's monitor is alive.
    QTimer::singleShot(0, this, [this, exitCode, run = m_latestLaunch] {
        const bool latest = !run.owner_before(m_latestLaunch) && !m_latestLaunch.owner_before(run);
        if (latest)
            handleProcessExit(exitCode);
    });
    qCDebug(lcRuvod) << "[ProcessManager::onWindowsProcessExited] Queued handleProcessExit via QTimer::singleShot";
}

void ManagedProcess::handleProcessExit(int exitCode)
{
    if (m_retired)
        return;
    qCDebug(lcRuvod) << "[ProcessManager::handleProcessExit] Processing in main thread for" << processId();
    stopKillTimer();
    m_info.state = QProcess::NotRunning;
    m_info.pid = -1;
    qCDebug(lcRuvod) << "[ProcessManager] Process" << processId() << "exited with code" << exitCode
                     << "- autoRestart:" << m_info.autoRestart << "restartAttempts:" << m_info.restartAttempts
                     << "maxRestartAttempts:" << m_info.maxRestartAttempts;
    releaseResources();
    // The reader has ended: what it sent is delivered now, as nothing may follow the end that is reported next.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    finishOrRestart(exitCode);
}

void ManagedProcess::finishOrRestart(int exitCode)
{
    switch (decideAfterExit(m_info, exitCode)) {
    case ExitDecision::Restart:
        qCInfo(lcRuvod) << "[ProcessManager] Process" << processId() << "crashed (exit code" << exitCode
                        << "), scheduling restart attempt" << m_info.restartAttempts << "of"
                        << m_info.maxRestartAttempts << "in" << m_info.restartDelayMs << "ms";
        m_restartTimer.start(std::max(0, m_info.restartDelayMs));
        return;
    case ExitDecision::GiveUp:
        qCWarning(lcRuvod) << "[ProcessManager] Process" << processId() << "exceeded max restart attempts ("
                           << m_info.maxRestartAttempts << "), giving up";
        break;
    case ExitDecision::Finished: break;
    }
    emit processFinished(processId(), exitCode);
}

void ManagedProcess::attemptRestart()
{
    qCInfo(lcRuvod) << "[ProcessManager] Attempting to restart process" << processId() << "(attempt"
                    << m_info.restartAttempts << "of" << m_info.maxRestartAttempts << ")";
    parseProcessSpec(m_spec, m_info);
    if (launchWindowsProcess(m_spec)) {
        qCInfo(lcRuvod) << "[ProcessManager] Process" << processId() << "restarted successfully";
        return;
    }
    qCWarning(lcRuvod) << "[ProcessManager] Failed to restart process" << processId();
    if (retryAfterFailedRestart(m_info)) {
        qCInfo(lcRuvod) << "[ProcessManager] Scheduling restart attempt" << m_info.restartAttempts << "of"
                        << m_info.maxRestartAttempts << "in" << m_info.restartDelayMs << "ms";
        m_restartTimer.start(std::max(0, m_info.restartDelayMs));
        return;
    }
    qCWarning(lcRuvod) << "[ProcessManager] Process" << processId() << "exceeded max restart attempts ("
                       << m_info.maxRestartAttempts << "), giving up";
    m_info.state = QProcess::NotRunning;
    emit processFinished(processId(), -1);
}

// A child that has exited by itself is still reported: its monitor is about to do that, and ends.
void ManagedProcess::stopMonitor()
{
    if (m_monitorWorker && !m_launch->hasExited())
        m_monitorWorker->stopMonitoring();
}

void ManagedProcess::stopWorkers(unsigned long joinTimeoutMs)
{
    stopMonitor();
    joinWorker(m_monitorThread, m_monitorWorker, joinTimeoutMs);
    if (m_ioWorker)
        m_ioWorker->stopReading();
    joinWorker(m_ioThread, m_ioWorker, joinTimeoutMs);
}

void ManagedProcess::releaseResources()
{
    if (m_launch)
        m_launch->state = QProcess::NotRunning;
    stopWorkers(releaseJoinTimeout);
    m_stdinWriter.reset();
    m_launch.reset(); // the last owner, unless a thread had to be left behind: closes the run's handles
    m_info.pid = -1;
    m_info.state = QProcess::NotRunning;
}

ProcessInfo ManagedProcess::info() const
{
    ProcessInfo info = m_info;
    if (m_launch) {
        info.processHandle = m_launch->process.get();
        info.threadHandle = m_launch->thread.get();
        info.stdinWrite = m_launch->stdinWrite.get();
        info.stdoutRead = m_launch->stdoutRead.get();
        info.stderrRead = m_launch->stderrRead.get();
    }
    return info;
}

bool ManagedProcess::isRunning() const
{
    if (!m_launch || m_info.state != QProcess::Running)
        return false;
    DWORD code = 0;
    if (!GetExitCodeProcess(m_launch->process.get(), &code)) {
        const DWORD error = GetLastError();
        qCDebug(lcRuvod) << "[ManagedProcess] GetExitCodeProcess failed for" << processId() << "- error:" << error;
        return false;
    }
    if (code == STILL_ACTIVE)
        return true;
    qCDebug(lcRuvod) << "[ManagedProcess] Process" << processId() << "has exited with code" << code
                     << "but cleanup incomplete";
    return false;
}

} // namespace ruvo
