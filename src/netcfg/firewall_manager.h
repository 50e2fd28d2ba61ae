#pragma once

#include "netcfg/filter_engine.h"

#include <cstdint>
#include <expected>
#include <string>
#include <vector>

namespace ruvo {

struct FilterRule;
struct PermittedProgram;

/// Keeps DNS and, if asked to, IPv6 from leaving around the tunnel, with the filters of netcfg/filter_rules.h; the
/// daemon, the proxy core and the desktop application pass. Lets the daemon's listener accept connections, with a
/// rule of the Windows Firewall.
///
/// Service thread. Filters last as long as the manager does, and no longer than the process; the rule of the Windows
/// Firewall stays if the process is killed. Whatever fails is logged.
class FirewallManager
{
public:
    FirewallManager() = default;
    /// As cleanup.
    ~FirewallManager();
    FirewallManager(const FirewallManager &) = delete;
    FirewallManager &operator=(const FirewallManager &) = delete;

    /// Opens the filtering engine, once. False if there is none.
    bool initialize();
    /// Adds the filters and the rule, after initialize, once. `interfaceIndex` is the tunnel's, `dnsServer` (host
    /// order) the tunnel's own. Every step is tried, whatever became of those before. False if one failed; a missing
    /// proxy core or application is no failure, nor is a missing rule of the Windows Firewall.
    bool applyStrictRoute(std::uint32_t interfaceIndex, std::uint32_t dnsServer, bool blockIpv6);
    /// Whether every filter that was added is still there. Each that is not is named in the log.
    bool verifyFilters() const;
    /// Takes away the rule and the filters; initialize may follow again.
    void cleanup();

    /// Adds the rule of the Windows Firewall, in the place of one that a killed daemon of this path has left.
    bool addFirewallRule();
    /// Takes away the rule that was added; true if there is none any more.
    bool removeFirewallRule();

private:
    bool permitPrograms();
    bool permitProgram(const PermittedProgram &program, const std::wstring &path);
    bool blockIpv6Connections();
    bool permitTunnel(std::uint32_t interfaceIndex);
    bool blockDns(std::uint32_t dnsServer);
    std::expected<void, DWORD> addFilter(const FilterRule &rule, const FilterOperand &operand);
    bool addOrWarn(const FilterRule &rule, const FilterOperand &operand);

    bool m_initialized = false;
    FilterEngine m_engine;
    /// In the order in which they were added.
    std::vector<std::uint64_t> m_filterIds;
    /// Empty until there was a rule to add.
    std::wstring m_ruleName;
};

} // namespace ruvo
