#include "app/windows_service.h"

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace ruvo {

namespace {

/// LocalSystem and every logged-on user may query, start, stop and send controls; administrators may also
/// change and delete. So the desktop app needs no elevation to start the service.
constexpr wchar_t serviceAccess[] = L"D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
                                    L"(A;;CCLCSWRPWPDTLOCRRC;;;AU)";

/// How long the first thread waits for the daemon to be gone after "stopped" was reported.
constexpr DWORD serviceMainTimeout = 30000; // ms

/// How often the manager is told that a stop goes on.
constexpr DWORD stopReportInterval = 5000; // ms
/// After so many, two minutes, a stop counts as hung: all waits within one are far shorter.
constexpr int maxStopReports = 24;

constexpr DWORD firstUserControl = 128;
constexpr DWORD lastUserControl = 255;

/// Never destroyed: the service thread may use it until the process ends.
WindowsService *s_instance = nullptr;

ServiceHandle openManager(DWORD access)
{
    ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, access));
    if (!manager)
        throw std::runtime_error("Failed to open Service Control Manager");
    return manager;
}

std::wstring quotedExecutablePath()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    // A path that does not fit is cut and fills the buffer: registering it would name another file.
    if (length == 0 || length == MAX_PATH)
        throw std::runtime_error("Failed to get module file name");
    return L"\"" + std::wstring(path, length) + L"\"";
}

/// The service keeps its default access if this fails.
void applyAccess(SC_HANDLE service)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(serviceAccess, SDDL_REVISION_1, &descriptor, nullptr))
        return;
    const LocalMemory owned(descriptor);
    SetServiceObjectSecurity(service, DACL_SECURITY_INFORMATION, descriptor);
}

} // namespace

void WindowsService::initialize(const std::wstring &serviceName, const std::wstring &displayName)
{
    if (s_instance)
        throw std::runtime_error("WindowsService already initialized");
    s_instance = new WindowsService(serviceName, displayName);
}

WindowsService &WindowsService::instance()
{
    if (!s_instance)
        throw std::runtime_error("WindowsService not initialized");
    return *s_instance;
}

WindowsService::WindowsService(const std::wstring &serviceName, const std::wstring &displayName)
    : m_serviceName(serviceName)
    , m_displayName(displayName)
    , m_stopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
    , m_serviceMainDone(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    if (!m_stopEvent || !m_serviceMainDone)
        throw std::runtime_error("Failed to create stop event");
}

void WindowsService::registerService()
{
    const ServiceHandle manager = openManager(SC_MANAGER_CREATE_SERVICE);
    const std::wstring binaryPath = quotedExecutablePath();
    const ServiceHandle service(CreateServiceW(
        manager.get(), m_serviceName.c_str(), m_displayName.c_str(), SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
        SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, binaryPath.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service) {
        throw std::runtime_error(GetLastError() == ERROR_SERVICE_EXISTS ? "Service already exists"
                                                                        : "Failed to create service");
    }
    applyAccess(service.get());
}

void WindowsService::unregisterService()
{
    const ServiceHandle manager = openManager(SC_MANAGER_CONNECT);
    const ServiceHandle service(OpenServiceW(manager.get(), m_serviceName.c_str(), DELETE | SERVICE_STOP));
    if (!service)
        throw std::runtime_error("Failed to open service");
    SERVICE_STATUS status;
    ControlService(service.get(), SERVICE_CONTROL_STOP, &status); // fails if it does not run: fine
    if (!DeleteService(service.get()))
        throw std::runtime_error("Failed to delete service");
}

void WindowsService::setRunCallback(RunCallback callback)
{
    m_runCallback = std::move(callback);
}

void WindowsService::setStopCallback(StopCallback callback)
{
    const std::lock_guard lock(m_callbackMutex);
    m_stopCallback = std::move(callback);
}

void WindowsService::setCustomControlCallback(CustomControlCallback callback)
{
    const std::lock_guard lock(m_callbackMutex);
    m_customControlCallback = std::move(callback);
}

void WindowsService::clearControlCallbacks()
{
    const std::lock_guard lock(m_callbackMutex);
    m_stopCallback = nullptr;
    m_customControlCallback = nullptr;
}

int WindowsService::run()
{
    const SERVICE_TABLE_ENTRYW table[] = {{m_serviceName.data(), serviceMain}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherW(table)) {
        const DWORD error = GetLastError();
        if (error == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
            std::fputs("ERROR: ruvod must be run as a Windows Service.\n"
                       "To register the service, run: ruvod.exe --register\n"
                       "Then start it via Services or: sc start RuvoService\n",
                       stderr);
        } else {
            std::fprintf(stderr, "Failed to start service dispatcher: error %lu\n", error);
        }
        return 1;
    }
    // The dispatcher may return as soon as "stopped" is reported, while the service thread still takes the
    // daemon down; ending the process under it would cut that short.
    if (WaitForSingleObject(m_serviceMainDone.get(), serviceMainTimeout) != WAIT_OBJECT_0) {
        // Returning from main would destroy what the service thread still uses, under its hands.
        TerminateProcess(GetCurrentProcess(), EXIT_FAILURE);
        return EXIT_FAILURE;
    }
    if (m_stopReporter.joinable())
        m_stopReporter.join();
    return EXIT_SUCCESS;
}

void WINAPI WindowsService::serviceMain(DWORD, LPWSTR *)
{
    WindowsService &service = instance();
    service.serve();
    SetEvent(service.m_serviceMainDone.get());
}

void WindowsService::serve() noexcept
{
    const SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerExW(m_serviceName.c_str(), handleControl, this);
    if (!handle)
        return;
    m_status.setHandle(handle);
    m_status.reportStartPending();
    try {
        if (m_runCallback)
            m_runCallback();
    } catch (...) {
        m_status.reportFailed();
    }
}

DWORD WINAPI WindowsService::handleControl(DWORD control, DWORD, LPVOID, LPVOID context)
{
    auto &service = *static_cast<WindowsService *>(context);
    switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN: service.stop(); return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE: return NO_ERROR;
    default:
        if (control >= firstUserControl && control <= lastUserControl)
            return service.callCustomControl(control);
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

DWORD WindowsService::callCustomControl(DWORD control)
{
    const std::lock_guard lock(m_callbackMutex);
    if (!m_customControlCallback)
        return ERROR_CALL_NOT_IMPLEMENTED;
    try {
        m_customControlCallback(control);
    } catch (...) {
        return ERROR_EXCEPTION_IN_SERVICE;
    }
    return NO_ERROR;
}

void WindowsService::stop()
{
    if (m_stopping.exchange(true))
        return;
    m_status.reportStopPending();
    try {
        const std::lock_guard lock(m_callbackMutex);
        if (m_stopCallback)
            m_stopCallback();
    } catch (...) {
        // Whatever the callback could not do, our stop event is still set.
    }
    SetEvent(m_stopEvent.get());
    try {
        m_stopReporter = std::thread([this] { repeatStopPending(); });
    } catch (...) {
        // No thread can be had, or no memory for one: the one report has to do.
    }
}

// The first report promises an end within half a minute. A stop may take longer, with many processes to end and a
// tunnel to take down: without further ones the manager would take the service for hung.
void WindowsService::repeatStopPending()
{
    for (int reports = 0; reports < maxStopReports; ++reports) {
        if (WaitForSingleObject(m_serviceMainDone.get(), stopReportInterval) != WAIT_TIMEOUT)
            return;
        m_status.reportStopPending();
    }
    // The daemon's thread hangs, as in a log file that blocks. The dispatcher returns at this report, and the first
    // thread, which then waits for the daemon in vain, ends the process.
    m_status.reportFailed();
}

} // namespace ruvo
