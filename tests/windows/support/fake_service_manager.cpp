#include "windows/support/fake_service_manager.h"

#include <array>
#include <chrono>
#include <utility>

namespace ruvo::test {

namespace {

/// For a broken build, not a measure.
constexpr std::chrono::seconds timeout{15};

SERVICE_STATUS_HANDLE fakeHandle()
{
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(0x5EF1);
}

} // namespace

FakeServiceManager::FakeServiceManager(Returns returns)
    : m_returns(returns)
    , m_startDispatcher([this](const SERVICE_TABLE_ENTRYW *table) { return dispatch(table); })
    , m_registerHandler([this](LPCWSTR name, LPHANDLER_FUNCTION_EX handler, LPVOID context) {
        return registerHandler(name, handler, context);
    })
    , m_setStatus([this](SERVICE_STATUS_HANDLE handle, LPSERVICE_STATUS status) { return report(handle, *status); })
{}

FakeServiceManager::~FakeServiceManager()
{
    if (m_serviceThread.joinable())
        m_serviceThread.join();
}

bool FakeServiceManager::isOver() const
{
    if (m_serviceMainReturned)
        return true;
    const bool stopped = !m_reports.empty() && m_reports.back().dwCurrentState == SERVICE_STOPPED;
    return stopped && m_returns == Returns::whenStopped;
}

BOOL FakeServiceManager::dispatch(const SERVICE_TABLE_ENTRYW *table)
{
    if (m_dispatcherError != NO_ERROR) {
        SetLastError(m_dispatcherError);
        return FALSE;
    }
    std::unique_lock lock(m_mutex);
    m_serviceName = table->lpServiceName;
    // Outlives this call if the dispatcher returns early: the program has to wait for its own service thread.
    m_serviceThread = std::thread([this, main = table->lpServiceProc, name = m_serviceName]() mutable {
        std::array<LPWSTR, 2> arguments = {name.data(), nullptr};
        main(1, arguments.data());
        const std::lock_guard guard(m_mutex);
        m_serviceMainReturned = true;
        m_changed.notify_all();
    });

    for (;;) {
        m_changed.wait(lock, [this] { return isOver() || !m_controls.empty(); });
        if (isOver())
            break;
        Control next = std::move(m_controls.front());
        m_controls.pop_front();
        lock.unlock();
        deliver(std::move(next));
        lock.lock();
    }
    for (Control &control : m_controls)
        control.result.set_value(std::nullopt);
    m_controls.clear();
    m_dispatcherReturned = true;
    m_changed.notify_all();
    return TRUE;
}

void FakeServiceManager::deliver(Control control)
{
    if (m_handler)
        control.result.set_value(m_handler(control.code, 0, nullptr, m_context));
    else
        control.result.set_value(std::nullopt);
}

SERVICE_STATUS_HANDLE FakeServiceManager::registerHandler(LPCWSTR name, LPHANDLER_FUNCTION_EX handler, LPVOID context)
{
    if (m_handlerError != NO_ERROR) {
        SetLastError(m_handlerError);
        return nullptr;
    }
    const std::lock_guard guard(m_mutex);
    m_handlerName = name;
    m_handler = handler;
    m_context = context;
    return fakeHandle();
}

BOOL FakeServiceManager::report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS &status)
{
    if (handle != fakeHandle()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        const std::lock_guard guard(m_mutex);
        m_reports.push_back(status);
        m_changed.notify_all();
    }
    if (m_hook)
        m_hook(status);
    return TRUE;
}

std::future<std::optional<DWORD>> FakeServiceManager::post(DWORD code)
{
    Control control{code, {}};
    std::future<std::optional<DWORD>> result = control.result.get_future();
    const std::lock_guard guard(m_mutex);
    if (m_dispatcherReturned) {
        control.result.set_value(std::nullopt);
    } else {
        m_controls.push_back(std::move(control));
        m_changed.notify_all();
    }
    return result;
}

bool FakeServiceManager::waitForState(DWORD state)
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(
        lock, timeout, [this, state] { return !m_reports.empty() && m_reports.back().dwCurrentState == state; });
}

bool FakeServiceManager::waitUntilDispatcherReturned()
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_dispatcherReturned; });
}

std::vector<SERVICE_STATUS> FakeServiceManager::reports() const
{
    const std::lock_guard guard(m_mutex);
    return m_reports;
}

std::wstring FakeServiceManager::serviceName() const
{
    const std::lock_guard guard(m_mutex);
    return m_serviceName;
}

std::wstring FakeServiceManager::handlerName() const
{
    const std::lock_guard guard(m_mutex);
    return m_handlerName;
}

std::string reportText(const SERVICE_STATUS &status)
{
    return std::to_string(status.dwCurrentState) + " type " + std::to_string(status.dwServiceType) + " accepts "
           + std::to_string(status.dwControlsAccepted) + " exit " + std::to_string(status.dwWin32ExitCode) + '/'
           + std::to_string(status.dwServiceSpecificExitCode) + " checkpoint " + std::to_string(status.dwCheckPoint)
           + " hint " + std::to_string(status.dwWaitHint);
}

} // namespace ruvo::test
