#include "netcfg/firewall_manager.h"

#include "common/log_category.h"
#include "netcfg/filter_rules.h"
#include "netcfg/firewall_rule.h"
#include "netcfg/windows_firewall.h"

#include <QString>

#include <optional>

namespace ruvo {

namespace {

constexpr DWORD subLayerExists = static_cast<DWORD>(FWP_E_ALREADY_EXISTS);

std::optional<std::wstring> daemonPath()
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    // A path that does not fit is cut and fills the buffer: it would name another file.
    if (length == 0 || length >= MAX_PATH)
        return std::nullopt;
    return std::wstring(path, length);
}

} // namespace

FirewallManager::~FirewallManager()
{
    cleanup();
}

bool FirewallManager::initialize()
{
    if (m_initialized)
        return true;
    const DWORD openError = m_engine.open();
    if (openError != NO_ERROR) {
        qCCritical(lcRuvod) << "Failed to open WFP engine:" << openError;
        return false;
    }
    const DWORD subLayerError = m_engine.addSubLayer();
    if (subLayerError != NO_ERROR && subLayerError != subLayerExists)
        qCWarning(lcRuvod) << "Failed to create WFP sublayer:" << subLayerError;
    m_initialized = true;
    qCDebug(lcRuvod) << "Firewall manager initialized";
    return true;
}

bool FirewallManager::applyStrictRoute(std::uint32_t interfaceIndex, std::uint32_t dnsServer, bool blockIpv6)
{
    if (!m_initialized) {
        qCCritical(lcRuvod) << "Firewall manager not initialized";
        return false;
    }
    qCDebug(lcRuvod) << "Applying strict route - interface:" << interfaceIndex;
    // Room for every id first: without memory for one, its filter would be in force and nobody would remember it.
    m_filterIds.reserve(m_filterIds.size() + mostFilters);

    bool succeeded = true;
    if (!permitPrograms()) {
        qCWarning(lcRuvod) << "Failed to add process permit filters";
        succeeded = false;
    }
    if (blockIpv6 && !blockIpv6Connections()) {
        qCWarning(lcRuvod) << "Failed to add IPv6 block filter";
        succeeded = false;
    }
    if (!permitTunnel(interfaceIndex)) {
        qCWarning(lcRuvod) << "Failed to add interface permit filters";
        succeeded = false;
    }
    if (!blockDns(dnsServer)) {
        qCWarning(lcRuvod) << "Failed to add DNS block filters";
        succeeded = false;
    }
    if (succeeded) {
        qCDebug(lcRuvod) << "Strict route firewall rules applied successfully";
        qCCritical(lcRuvod) << "[WFP] Created" << m_filterIds.size() << "filters";
        verifyFilters();
    }
    if (!addFirewallRule())
        qCWarning(lcRuvod) << "Failed to add Windows Firewall inbound rule";
    return succeeded;
}

/// True if the daemon passes: the core and the application may not be installed.
bool FirewallManager::permitPrograms()
{
    const std::optional<std::wstring> daemon = daemonPath();
    if (!daemon) {
        qCWarning(lcRuvod) << "Failed to get current process path";
        return false;
    }
    bool succeeded = true;
    for (const PermittedProgram &program : permittedPrograms) {
        if (permitProgram(program, pathOf(program, *daemon)))
            qCDebug(lcRuvod) << program.success;
        else if (program.failure)
            qCWarning(lcRuvod) << program.failure;
        else
            succeeded = false;
    }
    return succeeded;
}

/// The filters after one that failed are still added: a program that passes in part of the cases is better off than
/// one that is cut off in all of them.
bool FirewallManager::permitProgram(const PermittedProgram &program, const std::wstring &path)
{
    const std::expected<ProgramId, DWORD> id = programId(path);
    if (!id) {
        qCWarning(lcRuvod) << "Failed to get AppID for" << QString::fromStdWString(path);
        return false;
    }
    bool succeeded = true;
    for (FilterRule rule : programPermits) {
        if (!rule.label)
            rule.label = program.label;
        if (!addFilter(rule, {.program = id->get()})) {
            qCWarning(lcRuvod) << rule.failure << QString::fromStdWString(path);
            succeeded = false;
        }
    }
    return succeeded;
}

bool FirewallManager::blockIpv6Connections()
{
    for (const FilterRule &rule : ipv6Blocks) {
        if (!addOrWarn(rule, {}))
            return false;
    }
    qCDebug(lcRuvod) << "Added IPv6 block filter (weight 12)";
    return true;
}

bool FirewallManager::permitTunnel(std::uint32_t interfaceIndex)
{
    for (const FilterRule &rule : tunnelPermits) {
        if (!addOrWarn(rule, {.interfaceIndex = interfaceIndex}))
            return false;
    }
    qCDebug(lcRuvod) << "Added interface permit filters (weight 11) - interface:" << interfaceIndex;
    return true;
}

/// Queries to `dnsServer` are blocked as all others are: what lets them through is that they take the tunnel.
/// Both are tried: DNS that leaks over one family is better than over two.
bool FirewallManager::blockDns([[maybe_unused]] std::uint32_t dnsServer)
{
    bool succeeded = true;
    for (const FilterRule &rule : dnsBlocks)
        succeeded = addOrWarn(rule, {}) && succeeded;
    return succeeded;
}

std::expected<void, DWORD> FirewallManager::addFilter(const FilterRule &rule, const FilterOperand &operand)
{
    const std::expected<std::uint64_t, DWORD> filter = m_engine.add(rule, operand);
    if (!filter)
        return std::unexpected(filter.error());
    m_filterIds.push_back(*filter);
    return {};
}

bool FirewallManager::addOrWarn(const FilterRule &rule, const FilterOperand &operand)
{
    const std::expected<void, DWORD> added = addFilter(rule, operand);
    if (!added)
        qCWarning(lcRuvod) << rule.failure << added.error();
    return added.has_value();
}

bool FirewallManager::verifyFilters() const
{
    if (!m_initialized || !m_engine.isOpen()) {
        qCCritical(lcRuvod) << "[FILTER-CHECK] ❌ Not initialized or no engine handle!";
        return false;
    }
    qCCritical(lcRuvod) << "[FILTER-CHECK] 🔍 Verifying" << m_filterIds.size() << "filters still exist...";
    std::size_t missing = 0;
    for (const std::uint64_t id : m_filterIds) {
        const std::expected<void, DWORD> found = m_engine.find(id);
        if (found)
            continue;
        ++missing;
        qCCritical(lcRuvod) << "[FILTER-CHECK] ❌ Filter ID" << id << "is MISSING! Error:" << found.error();
    }
    qCCritical(lcRuvod) << "[FILTER-CHECK]" << m_filterIds.size() - missing << "filters exist," << missing
                        << "are MISSING";
    if (missing == 0)
        qCCritical(lcRuvod) << "[FILTER-CHECK] ✅ All filters verified - DNS protection active";
    else
        qCCritical(lcRuvod) << "[FILTER-CHECK] 🔥🔥🔥 FILTERS DISAPPEARED WITHOUT CLEANUP! 🔥🔥🔥";
    return missing == 0;
}

// Every failure is passed over: filters that are left go with the session; a rule that is left is replaced by the
// next start.
void FirewallManager::cleanup()
{
    if (!m_initialized)
        return;
    removeFirewallRule();
    for (const std::uint64_t id : m_filterIds)
        m_engine.remove(id);
    m_filterIds.clear();
    m_engine.removeSubLayer();
    m_engine.close();
    m_initialized = false;
}

bool FirewallManager::addFirewallRule()
{
    const std::optional<std::wstring> daemon = daemonPath();
    if (!daemon) {
        qCWarning(lcRuvod) << "[WinFW] Failed to get process path";
        return false;
    }
    const FirewallRule rule = listenerRule(*daemon);
    m_ruleName = rule.name;
    WindowsFirewall firewall;
    if (!firewall.open() || !firewall.add(rule))
        return false;
    qCDebug(lcRuvod) << "[WinFW] ✓ Added Windows Firewall inbound allow rule for TCP";
    return true;
}

bool FirewallManager::removeFirewallRule()
{
    if (m_ruleName.empty()) // nothing was ever added
        return true;
    WindowsFirewall firewall;
    if (!firewall.open())
        return false;
    const HRESULT result = firewall.remove(m_ruleName);
    if (result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) {
        qCDebug(lcRuvod) << "[WinFW] Rule already removed";
        return true;
    }
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to remove firewall rule:" << result;
        return false;
    }
    qCDebug(lcRuvod) << "[WinFW] ✓ Removed Windows Firewall rule";
    return true;
}

} // namespace ruvo
