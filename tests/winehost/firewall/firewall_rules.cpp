#include "firewall/firewall_rules.h"

#include "firewall/rule_store.h"

namespace ruvo::winehost {

FirewallRules::FirewallRules() : RefusingRules("INetFwRules", IID_INetFwRules) {}

HRESULT FirewallRules::get_Count(LONG *count)
{
    return call("get_Count", [&](ComCall &) {
        if (!count)
            return E_POINTER;
        *count = static_cast<LONG>(storedRules().size());
        return S_OK;
    });
}

HRESULT FirewallRules::Add(INetFwRule *rule)
{
    return call("Add", [&](ComCall &call) {
        const RuleProperties *properties = FirewallRule::propertiesOf(rule);
        if (!properties)
            return rule ? E_INVALIDARG : E_POINTER;
        call.add("name", std::wstring_view(properties->name))
            .add("description", std::wstring_view(properties->description))
            .add("application", std::wstring_view(properties->application))
            .add("protocol", properties->protocol)
            .add("direction", properties->direction)
            .add("action", properties->action)
            .add("enabled", properties->isEnabled);
        if (properties->name.empty())
            return E_INVALIDARG;
        return storeRule(*properties) ? S_OK : HRESULT_FROM_WIN32(GetLastError());
    });
}

HRESULT FirewallRules::Remove(BSTR name)
{
    return call("Remove", [&](ComCall &call) {
        call.add("name", name);
        if (!name)
            return E_INVALIDARG;
        const DWORD error = removeStoredRule(name);
        return HRESULT_FROM_WIN32(error); // a macro that looks at it several times
    });
}

HRESULT FirewallRules::Item(BSTR name, INetFwRule **rule)
{
    return call("Item", [&](ComCall &call) {
        call.add("name", name);
        if (!name || !rule)
            return E_POINTER;
        *rule = nullptr;
        for (RuleProperties &stored : storedRules()) {
            if (_wcsicmp(stored.name.c_str(), name) == 0) {
                auto *made = new FirewallRule(std::move(stored));
                call.add("made", made->number());
                *rule = made;
                return S_OK;
            }
        }
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    });
}

} // namespace ruvo::winehost
