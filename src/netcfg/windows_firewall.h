#pragma once

#include "netcfg/com_handles.h"

#include <netfw.h>

#include <string>

namespace ruvo {

struct FirewallRule;

/// The rules of the Windows Firewall, through COM, for as long as one change takes: one thread opens it, changes and
/// lets go. It releases what it holds, and ends COM on this thread if it has started it.
class WindowsFirewall
{
public:
    WindowsFirewall() = default;
    WindowsFirewall(const WindowsFirewall &) = delete;
    WindowsFirewall &operator=(const WindowsFirewall &) = delete;

    /// Once, before anything else. False and logged on failure.
    bool open();
    /// Adds an enabled rule, in the place of an old one of this name. False and logged on failure.
    bool add(const FirewallRule &rule);
    /// HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), or a success, if there is no rule of this name. Logs nothing.
    HRESULT remove(const std::wstring &name);

private:
    void removeLeftover(const std::wstring &name);

    // The order matters: interfaces are released before COM ends.
    ComUse m_com;
    ComPointer<INetFwPolicy2> m_policy;
    ComPointer<INetFwRules> m_rules;
};

} // namespace ruvo
