#pragma once

#include <string>

namespace ruvo {

/// An inbound rule of the Windows Firewall that lets one program accept TCP connections, at all of its ports and from
/// everywhere. Windows knows the rule by its name.
struct FirewallRule
{
    std::wstring name;
    std::wstring description;
    /// Full path.
    std::wstring program;
};

/// The rule for the daemon at this full path. The connections that reach its listener come from the tunnel's peer
/// address: for the Windows Firewall they are a stranger's. Daemons in different folders have rules of their own.
FirewallRule listenerRule(const std::wstring &daemonPath);

} // namespace ruvo
