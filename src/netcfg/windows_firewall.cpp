#include "netcfg/windows_firewall.h"

#include "common/log_category.h"
#include "netcfg/firewall_rule.h"

namespace ruvo {

namespace {

constexpr LONG tcp = NET_FW_IP_PROTOCOL_TCP;

template<typename Class, typename Interface>
HRESULT create(ComPointer<Interface> &object)
{
    void *created = nullptr;
    const HRESULT result =
        CoCreateInstance(__uuidof(Class), nullptr, CLSCTX_INPROC_SERVER, __uuidof(Interface), &created);
    if (SUCCEEDED(result))
        object.reset(static_cast<Interface *>(created));
    return result;
}

using TextProperty = HRESULT (STDMETHODCALLTYPE INetFwRule::*)(BSTR);

HRESULT setText(INetFwRule *rule, TextProperty property, const std::wstring &text)
{
    const BasicString copy = basicString(text);
    return copy ? (rule->*property)(copy.get()) : E_OUTOFMEMORY;
}

/// Stops at the first failure: a rule without its program would open the machine for every program.
HRESULT fill(INetFwRule *object, const FirewallRule &rule)
{
    HRESULT result = setText(object, &INetFwRule::put_Name, rule.name);
    if (SUCCEEDED(result))
        result = setText(object, &INetFwRule::put_Description, rule.description);
    if (SUCCEEDED(result))
        result = setText(object, &INetFwRule::put_ApplicationName, rule.program);
    if (SUCCEEDED(result))
        result = object->put_Protocol(tcp);
    if (SUCCEEDED(result))
        result = object->put_Direction(NET_FW_RULE_DIR_IN);
    if (SUCCEEDED(result))
        result = object->put_Action(NET_FW_ACTION_ALLOW);
    if (SUCCEEDED(result))
        result = object->put_Enabled(VARIANT_TRUE);
    return result;
}

} // namespace

bool WindowsFirewall::open()
{
    HRESULT result = m_com.start();
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to initialize COM:" << result;
        return false;
    }
    result = create<NetFwPolicy2>(m_policy);
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to create INetFwPolicy2:" << result;
        return false;
    }
    result = m_policy.get()->get_Rules(m_rules.out());
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to get Rules collection:" << result;
        return false;
    }
    return true;
}

bool WindowsFirewall::add(const FirewallRule &rule)
{
    ComPointer<INetFwRule> object;
    HRESULT result = create<NetFwRule>(object);
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to create INetFwRule:" << result;
        return false;
    }
    result = fill(object.get(), rule);
    if (SUCCEEDED(result)) {
        removeLeftover(rule.name);
        result = m_rules.get()->Add(object.get());
    }
    if (FAILED(result)) {
        qCWarning(lcRuvod) << "[WinFW] Failed to add firewall rule:" << result;
        return false;
    }
    return true;
}

HRESULT WindowsFirewall::remove(const std::wstring &name)
{
    const BasicString copy = basicString(name);
    return copy ? m_rules.get()->Remove(copy.get()) : E_OUTOFMEMORY;
}

// A daemon that was killed has left its rule. Windows would keep both under one name, and removal takes one away.
// Where there is none, Windows may call the removal a success all the same: nothing is said of a rule that was there.
void WindowsFirewall::removeLeftover(const std::wstring &name)
{
    const HRESULT result = remove(name);
    if (SUCCEEDED(result))
        qCDebug(lcRuvod) << "[WinFW] Cleared the rule's name for the new one";
    else if (result != HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND))
        qCDebug(lcRuvod) << "[WinFW] Failed to remove the rule of an earlier run:" << result;
}

} // namespace ruvo
