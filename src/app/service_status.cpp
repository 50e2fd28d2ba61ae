#include "app/service_status.h"

namespace ruvo {

namespace {

constexpr DWORD startWaitHint = 3000; // ms
constexpr DWORD stopWaitHint = 30000; // ms
constexpr DWORD acceptedControls = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;

} // namespace

void ServiceStatus::setHandle(SERVICE_STATUS_HANDLE handle)
{
    const std::lock_guard lock(m_mutex);
    m_statusHandle = handle;
}

void ServiceStatus::reportStartPending()
{
    report(SERVICE_START_PENDING, 0, startWaitHint);
}

void ServiceStatus::reportRunning()
{
    report(SERVICE_RUNNING, acceptedControls, 0);
}

void ServiceStatus::reportStopPending()
{
    report(SERVICE_STOP_PENDING, acceptedControls, stopWaitHint);
}

void ServiceStatus::reportStopped()
{
    report(SERVICE_STOPPED, acceptedControls, 0);
}

void ServiceStatus::reportFailed()
{
    report(SERVICE_STOPPED, acceptedControls, 0, 1);
}

void ServiceStatus::report(DWORD state, DWORD controlsAccepted, DWORD waitHint, DWORD exitCode)
{
    const std::lock_guard lock(m_mutex);
    if (!m_statusHandle || m_status.dwCurrentState == SERVICE_STOPPED)
        return;
    // A stop that arrived in the instant of the start must not be taken back.
    if (state == SERVICE_RUNNING && m_status.dwCurrentState == SERVICE_STOP_PENDING)
        return;
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    m_checkPoint = pending ? m_checkPoint + 1 : 0;
    m_status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    m_status.dwCurrentState = state;
    m_status.dwControlsAccepted = controlsAccepted;
    m_status.dwWin32ExitCode = exitCode;
    m_status.dwServiceSpecificExitCode = 0;
    m_status.dwCheckPoint = m_checkPoint;
    m_status.dwWaitHint = waitHint;
    SetServiceStatus(m_statusHandle, &m_status);
}

} // namespace ruvo
