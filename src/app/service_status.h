#pragma once

#include <windows.h>
#include <winsvc.h>

#include <mutex>

namespace ruvo {

/// What the service manager is told about the service's state.
///
/// The service thread and the control handler's thread both report: one mutex keeps a report and its order
/// whole, and after "stopped" nothing more is reported, as the manager may end the process on it.
class ServiceStatus
{
public:
    /// From the registration of the control handler. Before it nothing is reported.
    void setHandle(SERVICE_STATUS_HANDLE handle);

    void reportStartPending();
    void reportRunning();
    void reportStopPending();
    void reportStopped();
    /// The run callback failed: Win32 exit code 1.
    void reportFailed();

private:
    void report(DWORD state, DWORD controlsAccepted, DWORD waitHint, DWORD exitCode = NO_ERROR);

    std::mutex m_mutex;
    SERVICE_STATUS m_status{};
    SERVICE_STATUS_HANDLE m_statusHandle = nullptr;
    /// Counts the pending reports, so that the manager sees progress.
    DWORD m_checkPoint = 0;
};

} // namespace ruvo
