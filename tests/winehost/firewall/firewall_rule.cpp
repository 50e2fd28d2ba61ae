#include "firewall/firewall_rule.h"

namespace ruvo::winehost {

namespace {

/// Asked for by this DLL alone: tells its own rules from others.
constexpr IID ownRule{0x5b0f6a0e, 0x2c1d, 0x4b8a, {0x9c, 0x11, 0x7d, 0x52, 0x3e, 0x90, 0xa4, 0x6b}};

} // namespace

FirewallRule::FirewallRule(RuleProperties properties)
    : RefusingRule("INetFwRule", IID_INetFwRule), m_properties(std::move(properties))
{}

const RuleProperties *FirewallRule::propertiesOf(INetFwRule *rule)
{
    void *found = nullptr;
    if (!rule || rule->QueryInterface(ownRule, &found) != S_OK)
        return nullptr;
    return &static_cast<FirewallRule *>(found)->m_properties; // without a reference: it is the caller's
}

HRESULT FirewallRule::QueryInterface(REFIID wanted, void **object)
{
    if (!IsEqualGUID(wanted, ownRule))
        return RecordedObject::QueryInterface(wanted, object);
    *object = this;
    return S_OK;
}

HRESULT FirewallRule::putText(const char *function, BSTR text, std::wstring RuleProperties::*property)
{
    return call(function, [&](ComCall &call) {
        const wchar_t *given = text ? text : L"";
        call.add("text", given);
        // "|" divides the parts of a rule where Windows keeps it.
        if (std::wstring_view(given).contains(L'|'))
            return E_INVALIDARG;
        m_properties.*property = given;
        return S_OK;
    });
}

HRESULT FirewallRule::getText(const char *function, BSTR *text, std::wstring RuleProperties::*property)
{
    return call(function, [&](ComCall &) {
        if (!text)
            return E_POINTER;
        *text = SysAllocString((m_properties.*property).c_str());
        return *text ? S_OK : E_OUTOFMEMORY;
    });
}

HRESULT FirewallRule::putNumber(const char *function, LONG number, Range allowed, LONG RuleProperties::*property)
{
    return call(function, [&](ComCall &call) {
        call.add("number", number);
        if (number < allowed.lowest || number > allowed.highest)
            return E_INVALIDARG;
        m_properties.*property = number;
        return S_OK;
    });
}

template<typename T>
HRESULT FirewallRule::getNumber(const char *function, T *number, LONG RuleProperties::*property)
{
    return call(function, [&](ComCall &) {
        if (!number)
            return E_POINTER;
        *number = static_cast<T>(m_properties.*property);
        return S_OK;
    });
}

HRESULT FirewallRule::get_Name(BSTR *name)
{
    return getText("get_Name", name, &RuleProperties::name);
}

HRESULT FirewallRule::put_Name(BSTR name)
{
    return putText("put_Name", name, &RuleProperties::name);
}

HRESULT FirewallRule::get_Description(BSTR *text)
{
    return getText("get_Description", text, &RuleProperties::description);
}

HRESULT FirewallRule::put_Description(BSTR text)
{
    return putText("put_Description", text, &RuleProperties::description);
}

HRESULT FirewallRule::get_ApplicationName(BSTR *path)
{
    return getText("get_ApplicationName", path, &RuleProperties::application);
}

HRESULT FirewallRule::put_ApplicationName(BSTR path)
{
    return putText("put_ApplicationName", path, &RuleProperties::application);
}

HRESULT FirewallRule::get_Protocol(LONG *protocol)
{
    return getNumber("get_Protocol", protocol, &RuleProperties::protocol);
}

HRESULT FirewallRule::put_Protocol(LONG protocol)
{
    return putNumber("put_Protocol", protocol, {0, RuleProperties::anyProtocol}, &RuleProperties::protocol);
}

HRESULT FirewallRule::get_Direction(NET_FW_RULE_DIRECTION *direction)
{
    return getNumber("get_Direction", direction, &RuleProperties::direction);
}

HRESULT FirewallRule::put_Direction(NET_FW_RULE_DIRECTION direction)
{
    return putNumber("put_Direction", direction, {NET_FW_RULE_DIR_IN, NET_FW_RULE_DIR_OUT},
                     &RuleProperties::direction);
}

HRESULT FirewallRule::get_Action(NET_FW_ACTION *action)
{
    return getNumber("get_Action", action, &RuleProperties::action);
}

HRESULT FirewallRule::put_Action(NET_FW_ACTION action)
{
    return putNumber("put_Action", action, {NET_FW_ACTION_BLOCK, NET_FW_ACTION_ALLOW}, &RuleProperties::action);
}

HRESULT FirewallRule::get_Enabled(VARIANT_BOOL *enabled)
{
    return call("get_Enabled", [&](ComCall &) {
        if (!enabled)
            return E_POINTER;
        *enabled = m_properties.isEnabled ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    });
}

HRESULT FirewallRule::put_Enabled(VARIANT_BOOL enabled)
{
    return call("put_Enabled", [&](ComCall &call) {
        call.add("number", enabled);
        m_properties.isEnabled = enabled != VARIANT_FALSE;
        return S_OK;
    });
}

} // namespace ruvo::winehost
