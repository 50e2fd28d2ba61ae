#include "process/process_monitor_worker.h"

#include "common/log_category.h"

#include <utility>

namespace ruvo {

ProcessMonitorWorker::ProcessMonitorWorker(LaunchContextPointer launch)
    : m_launch(std::move(launch)), m_stopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{}

ProcessMonitorWorker::~ProcessMonitorWorker()
{
    stopMonitoring();
}

void ProcessMonitorWorker::startMonitoring()
{
    if (!m_launch->process || !m_stopEvent)
        return;
    m_running = true;
    // Asked after m_running is set: a stop sees either that, or is seen here.
    if (m_stopRequested)
        m_running = false;
    qCDebug(lcRuvod) << "[ProcessMonitorWorker] Starting process monitoring";

    DWORD result = WAIT_OBJECT_0 + 1;
    DWORD error = NO_ERROR;
    if (m_running) {
        const HANDLE handles[] = {m_launch->process.get(), m_stopEvent.get()};
        result = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        error = GetLastError();
    }
    if (!m_running) {
        qCDebug(lcRuvod) << "[ProcessMonitorWorker] Monitoring stopped";
        return;
    }

    if (result == WAIT_OBJECT_0) {
        const int code = exitCode();
        qCDebug(lcRuvod) << "[ProcessMonitorWorker] Process exited with code:" << code << "- about to emit signal";
        emit processExited(code);
        qCDebug(lcRuvod) << "[ProcessMonitorWorker] Signal emitted successfully, m_running:" << m_running.load();
    } else if (result == WAIT_OBJECT_0 + 1) {
        qCDebug(lcRuvod) << "[ProcessMonitorWorker] Stop event signaled";
    } else {
        qCWarning(lcRuvod) << "[ProcessMonitorWorker] WaitForMultipleObjects failed:" << error;
    }
    m_running = false;
}

void ProcessMonitorWorker::stopMonitoring()
{
    m_stopRequested = true;
    if (!m_stopEvent || !m_running.exchange(false))
        return;
    qCDebug(lcRuvod) << "[ProcessMonitorWorker] Signaling stop event";
    SetEvent(m_stopEvent.get());
}

int ProcessMonitorWorker::exitCode() const
{
    DWORD code = 0;
    if (!GetExitCodeProcess(m_launch->process.get(), &code))
        return 0;
    return static_cast<int>(code);
}

} // namespace ruvo
