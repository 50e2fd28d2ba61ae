#include "process/console_interrupt.h"

#include "common/log_category.h"

#include <array>

namespace ruvo {

namespace {

constexpr int attachAttempts = 20;
constexpr DWORD attachRetryDelay = 50; // ms
constexpr DWORD deliveryDelay = 10;    // ms

/// Attaching to a console and leaving it replaces the process's standard handles.
class StandardHandlesKeeper
{
public:
    StandardHandlesKeeper()
    {
        for (std::size_t i = 0; i < m_handles.size(); ++i)
            m_handles[i] = GetStdHandle(s_which[i]);
    }
    ~StandardHandlesKeeper()
    {
        for (std::size_t i = 0; i < m_handles.size(); ++i)
            SetStdHandle(s_which[i], m_handles[i]);
    }
    StandardHandlesKeeper(const StandardHandlesKeeper &) = delete;
    StandardHandlesKeeper &operator=(const StandardHandlesKeeper &) = delete;

private:
    static constexpr std::array s_which = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    std::array<HANDLE, s_which.size()> m_handles{};
};

BOOL WINAPI swallowCtrlC(DWORD event)
{
    return event == CTRL_C_EVENT;
}

bool attachToConsoleOf(DWORD pid)
{
    for (int attempt = 1; attempt <= attachAttempts; ++attempt) {
        if (AttachConsole(pid)) {
            qCDebug(lcRuvod) << "[ProcessManager] Attached to console on attempt" << attempt;
            return true;
        }
        const DWORD error = GetLastError();
        if (error != ERROR_INVALID_HANDLE) { // which it is while the child has not made its console yet
            qCWarning(lcRuvod) << "[ProcessManager] AttachConsole failed with error:" << error;
            return false;
        }
        if (attempt < attachAttempts)
            Sleep(attachRetryDelay);
    }
    qCWarning(lcRuvod) << "[ProcessManager] Failed to attach to process console after retries";
    return false;
}

} // namespace

bool sendCtrlCToConsoleOf(DWORD pid)
{
    const StandardHandlesKeeper keeper;
    FreeConsole();
    if (!attachToConsoleOf(pid))
        return false;

    SetConsoleCtrlHandler(nullptr, TRUE);
    // The event may reach the daemon after it stopped ignoring it below, and would end it. Taken out first, as a
    // process keeps every registration of the same handler.
    SetConsoleCtrlHandler(swallowCtrlC, FALSE);
    SetConsoleCtrlHandler(swallowCtrlC, TRUE);
    const BOOL sent = GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    const DWORD error = GetLastError();
    FreeConsole();
    Sleep(deliveryDelay);
    SetConsoleCtrlHandler(nullptr, FALSE);
    if (!sent) {
        qCWarning(lcRuvod) << "[ProcessManager] GenerateConsoleCtrlEvent failed:" << error;
        return false;
    }
    return true;
}

} // namespace ruvo
