#pragma once

#include "app/service_status.h"
#include "common/windows_handles.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace ruvo {

/// The process towards the Windows service manager: registration, the dispatcher, the control handler and the
/// status reports. It knows nothing of the daemon but three callbacks. One for each process.
///
/// Failures of initialize, instance, registerService and unregisterService are raised as std::runtime_error
/// with the text for the user.
///
/// Threads: run() and the control handler belong to the process's first thread; the run callback, and the
/// reports that come from it, to the service thread that the manager makes.
class WindowsService
{
public:
    using RunCallback = std::function<void()>;
    using StopCallback = std::function<void()>;
    using CustomControlCallback = std::function<void(DWORD control)>;

    static void initialize(const std::wstring &serviceName, const std::wstring &displayName);
    static WindowsService &instance();

    /// Creates the service entry for the running executable (manual start, LocalSystem, every user may start
    /// and stop it).
    void registerService();
    /// Stops the service if it runs, and deletes its entry.
    void unregisterService();

    /// The daemon; returns when it has shut down.
    void setRunCallback(RunCallback callback);
    /// Called once, on the first thread, when a stop or shutdown is asked for. Must not block.
    void setStopCallback(StopCallback callback);
    /// Called on the first thread for the controls 128 to 255. Must not block.
    void setCustomControlCallback(CustomControlCallback callback);
    /// After this no stop or custom-control callback is called, and none is still running.
    void clearControlCallbacks();

    /// Serves the service manager until the service has stopped. The process's exit status: 0, or 1 if there
    /// is no manager to serve (standard error says why). Ends the process, with 1, if the run callback has not
    /// returned half a minute after the service has stopped.
    int run();

    void reportRunning() { m_status.reportRunning(); }
    void reportStopped() { m_status.reportStopped(); }
    /// Stopped, with Win32 exit code 1.
    void reportFailed() { m_status.reportFailed(); }

    WindowsService(const WindowsService &) = delete;
    WindowsService &operator=(const WindowsService &) = delete;

private:
    WindowsService(const std::wstring &serviceName, const std::wstring &displayName);

    static void WINAPI serviceMain(DWORD argc, LPWSTR *argv);
    static DWORD WINAPI handleControl(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);

    void serve() noexcept;
    DWORD callCustomControl(DWORD control);
    void stop();
    void repeatStopPending();

    std::wstring m_serviceName;
    std::wstring m_displayName;
    ServiceStatus m_status;
    /// Set once a stop was asked for.
    KernelHandle m_stopEvent;
    /// Set when the service main function has returned.
    KernelHandle m_serviceMainDone;
    RunCallback m_runCallback;
    /// Guards the two callbacks, and is held while one of them runs.
    std::mutex m_callbackMutex;
    StopCallback m_stopCallback;
    CustomControlCallback m_customControlCallback;
    std::atomic<bool> m_stopping = false;
    /// Repeats the report of a stop that takes long. Made and joined on the first thread.
    std::thread m_stopReporter;
};

} // namespace ruvo
