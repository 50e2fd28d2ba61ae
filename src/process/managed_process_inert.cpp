// The handlers of the QProcess that every ManagedProcess has and never starts: part of its interface, called by
// nothing in the daemon.

#include "process/managed_process.h"

#include "common/log_category.h"

namespace ruvo {

namespace {

QString errorText(QProcess::ProcessError error)
{
    switch (error) {
    case QProcess::FailedToStart: return "Failed to start process";
    case QProcess::Crashed: return "Process crashed";
    case QProcess::Timedout: return "Process timed out";
    case QProcess::ReadError: return "Read error";
    case QProcess::WriteError: return "Write error";
    case QProcess::UnknownError: break;
    }
    return "Unknown error";
}

} // namespace

void ManagedProcess::onProcessStarted()
{
    m_info.state = QProcess::Running;
    m_info.pid = m_process.processId();
    m_info.startTime = QDateTime::currentDateTime();
    emit processStarted(processId());
}

void ManagedProcess::onProcessFinished(int exitCode, QProcess::ExitStatus)
{
    qCDebug(lcRuvod) << "Process" << processId() << "finished with exit code" << exitCode;
    finishOrRestart(exitCode);
}

void ManagedProcess::onProcessError(QProcess::ProcessError error)
{
    emit processError(processId(), errorText(error));
}

void ManagedProcess::onProcessStateChanged(QProcess::ProcessState newState)
{
    m_info.state = newState;
}

void ManagedProcess::onStdoutReady()
{
    emit stdoutReady(processId(), m_process.readAllStandardOutput());
}

void ManagedProcess::onStderrReady()
{
    emit stderrReady(processId(), m_process.readAllStandardError());
}

} // namespace ruvo
