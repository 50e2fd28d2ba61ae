#pragma once

#include "windows/support/import_redirection.h"

#include <windows.h>

#include <array>
#include <atomic>

namespace ruvo::test {

/// Makes Ctrl+C for group 0 reach every other process of the console, as on Windows. Wine takes group 0 for the
/// caller's own group; a child that leads a group of its own is reached by its id only.
class ConsoleDelivery
{
public:
    /// How many times Ctrl+C was sent.
    int sent() const { return m_sent; }

private:
    BOOL generate(DWORD event, DWORD group)
    {
        if (event != CTRL_C_EVENT || group != 0)
            return m_generate.real(event, group);
        ++m_sent;
        std::array<DWORD, 64> pids{};
        const DWORD count = GetConsoleProcessList(pids.data(), static_cast<DWORD>(pids.size()));
        for (DWORD i = 0; i < count && i < pids.size(); ++i) {
            if (pids[i] != GetCurrentProcessId())
                m_generate.real(event, pids[i]);
        }
        return TRUE;
    }

    std::atomic<int> m_sent = 0;
    const ImportRedirection<IMPORT(GenerateConsoleCtrlEvent)> m_generate{
        [this](DWORD event, DWORD group) { return generate(event, group); }};
};

} // namespace ruvo::test
