#pragma once

#include "netcfg/firewall_manager.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_filter_engine.h"
#include "windows/netcfg/fake_firewall_policy.h"
#include "windows/netcfg/firewall_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace ruvo::test {

/// A firewall manager between fakes, in a daemon at C:\Ruvo\ruvod.exe.
class FirewallTest : public testing::Test
{
protected:
    static constexpr std::uint32_t tunnelIndex = 7;
    static constexpr std::uint32_t tunnelDns = 0x0A060702;

    /// Warnings and worse.
    QStringList warnings() const
    {
        QStringList found;
        for (const QString &line : m_log.lines()) {
            if (!line.startsWith("DEBUG "))
                found.append(line);
        }
        return found;
    }

    LogCapture m_log;
    FirewallCalls m_calls;
    FakeFilterEngine m_engine{m_calls};
    FakeFirewallPolicy m_policy{m_calls};
    /// What the process says its path is; none if empty.
    std::wstring m_path = L"C:\\Ruvo\\ruvod.exe";

private:
    const ImportRedirection<IMPORT(GetModuleFileNameW)> m_moduleFileName{
        [this](HMODULE module, LPWSTR path, DWORD size) -> DWORD {
            if (module)
                return m_moduleFileName.real(module, path, size);
            EXPECT_EQ(size, 260u);
            // As Windows does it: what does not fit is cut, and fills the buffer.
            const std::wstring fitting = m_path.substr(0, size - 1);
            std::ranges::copy(fitting, path);
            path[fitting.size()] = L'\0';
            return static_cast<DWORD>(std::min<std::size_t>(m_path.size(), size));
        }};
};

} // namespace ruvo::test
