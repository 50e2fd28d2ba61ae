#pragma once

#include "windows/support/import_redirection.h"

#include <windows.h>
#include <winsvc.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ruvo::test {

/// Stands in for the Windows service manager and its dispatcher: the service main function runs on a thread of
/// its own, controls reach the handler on the thread that called the dispatcher, one at a time.
///
/// The program's thread calls the dispatcher; everything public here is for the test's other threads.
class FakeServiceManager
{
public:
    /// When the dispatcher gives the program's thread back. Windows may do so as soon as "stopped" is reported.
    enum class Returns { afterServiceMain, whenStopped };

    explicit FakeServiceManager(Returns returns = Returns::afterServiceMain);
    ~FakeServiceManager();
    FakeServiceManager(const FakeServiceManager &) = delete;
    FakeServiceManager &operator=(const FakeServiceManager &) = delete;

    /// The dispatcher refuses, as for a program that nobody started as a service.
    void refuseDispatcher(DWORD error) { m_dispatcherError = error; }
    /// The control handler cannot be registered.
    void refuseHandler(DWORD error) { m_handlerError = error; }
    /// Called on the reporting thread within each status report.
    void onReport(std::function<void(const SERVICE_STATUS &)> hook) { m_hook = std::move(hook); }

    /// Sends a control; what the handler answers, or nothing if the dispatcher has returned by then.
    std::future<std::optional<DWORD>> post(DWORD control);
    std::optional<DWORD> control(DWORD control) { return post(control).get(); }

    /// Waits until the service has reported `state` as its last; false after a time-out.
    bool waitForState(DWORD state);
    bool waitUntilDispatcherReturned();

    std::vector<SERVICE_STATUS> reports() const;
    /// The names that the program gave: of the service in the table, and with its control handler.
    std::wstring serviceName() const;
    std::wstring handlerName() const;

private:
    struct Control
    {
        DWORD code;
        std::promise<std::optional<DWORD>> result;
    };

    BOOL dispatch(const SERVICE_TABLE_ENTRYW *table);
    SERVICE_STATUS_HANDLE registerHandler(LPCWSTR name, LPHANDLER_FUNCTION_EX handler, LPVOID context);
    BOOL report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS &status);
    void deliver(Control control);
    bool isOver() const;

    const Returns m_returns;
    DWORD m_dispatcherError = NO_ERROR;
    DWORD m_handlerError = NO_ERROR;
    std::function<void(const SERVICE_STATUS &)> m_hook;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::wstring m_serviceName;
    std::wstring m_handlerName;
    LPHANDLER_FUNCTION_EX m_handler = nullptr;
    LPVOID m_context = nullptr;
    std::vector<SERVICE_STATUS> m_reports;
    std::deque<Control> m_controls;
    bool m_serviceMainReturned = false;
    bool m_dispatcherReturned = false;
    std::thread m_serviceThread;

    const ImportRedirection<IMPORT(StartServiceCtrlDispatcherW)> m_startDispatcher;
    const ImportRedirection<IMPORT(RegisterServiceCtrlHandlerExW)> m_registerHandler;
    const ImportRedirection<IMPORT(SetServiceStatus)> m_setStatus;
};

/// "<state> accepts <controls> exit <code>/<service's code> checkpoint <n> hint <ms>": one line of what a service
/// reported.
std::string reportText(const SERVICE_STATUS &status);

} // namespace ruvo::test
